// SPDX-License-Identifier: GPL-2.0
/*
 * The virtual engine: module, platform device, media device and topology.
 */
#include <linux/module.h>
#include <linux/platform_device.h>
#include <linux/slab.h>

#include "vengine.h"

static char *model = VENGINE_MODEL;
module_param(model, charp, 0444);
MODULE_PARM_DESC(model, "model name of the media device");

atomic_t vengine_counts[VENGINE_COUNTS];

static int vengine_core_init(struct vengine *engine)
{
	struct media_entity *core = &engine->core;
	unsigned int pad;
	int ret;

	for (pad = 0; pad < VENGINE_CORE_PADS; pad++)
		engine->core_pads[pad].flags =
			pad < VENGINE_PORTS && !V4L2_TYPE_IS_OUTPUT(vengine_ports[pad].buf_type) ?
			MEDIA_PAD_FL_SOURCE : MEDIA_PAD_FL_SINK;
	core->obj_type = MEDIA_ENTITY_TYPE_BASE;
	core->function = VENGINE_CORE_FUNCTION;
	core->name = VENGINE_CORE_ENTITY;
	ret = media_entity_pads_init(core, VENGINE_CORE_PADS, engine->core_pads);
	return ret ?: media_device_register_entity(&engine->mdev, core);
}

static int vengine_link_port(struct vengine *engine, u32 n)
{
	struct media_entity *node = &engine->ports[n].vdev.entity;
	u32 flags = vengine_ports[n].immutable ? MEDIA_LNK_FL_ENABLED | MEDIA_LNK_FL_IMMUTABLE : 0;

	if (V4L2_TYPE_IS_OUTPUT(vengine_ports[n].buf_type))
		return media_create_pad_link(node, 0, &engine->core, n, flags);
	return media_create_pad_link(&engine->core, n, node, 0, flags);
}

static int vengine_topology_init(struct vengine *engine)
{
	u32 n;
	int ret;

	ret = vengine_core_init(engine);
	if (ret)
		return ret;
	ret = vengine_subdev_init(engine);
	if (ret)
		return ret;
	for (n = 0; n < VENGINE_PORTS; n++) {
		ret = vengine_port_init(engine, n);
		if (ret)
			return ret;
		ret = vengine_link_port(engine, n);
		if (ret)
			return ret;
	}
	ret = media_create_pad_link(&engine->sd.entity, 0, &engine->core, VENGINE_SUBDEV_CORE_PAD,
				    MEDIA_LNK_FL_ENABLED | MEDIA_LNK_FL_IMMUTABLE);
	if (ret)
		return ret;
	ret = vengine_subdev_register_node(engine);
	return ret ?: media_device_register(&engine->mdev);
}

/* Undoes all that probing may have done, whether or not it has come so far. */
static void vengine_teardown(struct vengine *engine)
{
	u32 n;

	vengine_debugfs_cleanup(engine);
	media_device_unregister(&engine->mdev);
	for (n = 0; n < VENGINE_PORTS; n++)
		vengine_port_cleanup(&engine->ports[n]);
	vengine_subdev_cleanup(engine);
	vengine_engine_cleanup(engine);
	media_device_unregister_entity(&engine->core);
	v4l2_device_unregister(&engine->v4l2_dev);
	media_device_cleanup(&engine->mdev);
	WARN_ON(!vengine_counts_clean());
	kfree(engine);
}

static int vengine_probe(struct platform_device *pdev)
{
	struct vengine *engine;
	int ret;

	engine = kzalloc(sizeof(*engine), GFP_KERNEL);
	if (!engine)
		return -ENOMEM;
	engine->dev = &pdev->dev;
	engine->mdev.dev = &pdev->dev;
	engine->mdev.ops = &vengine_media_ops;
	engine->mdev.hw_revision = 1;
	strscpy(engine->mdev.model, model, sizeof(engine->mdev.model));
	media_device_init(&engine->mdev);
	engine->v4l2_dev.mdev = &engine->mdev;
	ret = v4l2_device_register(&pdev->dev, &engine->v4l2_dev);
	if (ret) {
		media_device_cleanup(&engine->mdev);
		kfree(engine);
		return ret;
	}
	vengine_debugfs_init(engine);
	ret = vengine_engine_init(engine);
	if (!ret)
		ret = vengine_topology_init(engine);
	if (ret) {
		vengine_teardown(engine);
		return ret;
	}
	vengine_debugfs_register(engine);
	platform_set_drvdata(pdev, engine);
	return 0;
}

static int vengine_remove(struct platform_device *pdev)
{
	vengine_teardown(platform_get_drvdata(pdev));
	return 0;
}

static struct platform_driver vengine_driver = {
	.probe = vengine_probe,
	.remove = vengine_remove,
	.driver = {
		.name = VENGINE_DRIVER,
		/* Open nodes, requests and fences hold the module, but nothing holds a binding. */
		.suppress_bind_attrs = true,
	},
};

static struct platform_device *vengine_device;

static int __init vengine_module_init(void)
{
	int ret = platform_driver_register(&vengine_driver);

	if (ret)
		return ret;
	vengine_device = platform_device_register_simple(VENGINE_DRIVER, PLATFORM_DEVID_NONE,
							 NULL, 0);
	if (IS_ERR(vengine_device)) {
		platform_driver_unregister(&vengine_driver);
		return PTR_ERR(vengine_device);
	}
	return 0;
}
module_init(vengine_module_init);

static void __exit vengine_module_exit(void)
{
	platform_device_unregister(vengine_device);
	platform_driver_unregister(&vengine_driver);
}
module_exit(vengine_module_exit);

MODULE_DESCRIPTION("Virtual image engine with media requests");
MODULE_AUTHOR("The corvane developers");
MODULE_LICENSE("GPL");
MODULE_IMPORT_NS(DMA_BUF);
