// SPDX-License-Identifier: GPL-2.0-only
/*
 * The virtual engine: module, platform devices, media devices and their topology.
 */
#include <linux/delay.h>
#include <linux/module.h>
#include <linux/platform_device.h>
#include <linux/rcupdate.h>
#include <linux/slab.h>

#include "vengine.h"

#define VENGINE_MAX_DEVICES 8

static char *model = VENGINE_MODEL;
module_param(model, charp, 0444);
MODULE_PARM_DESC(model, "model name of the media devices");

static int n_devs = 1;
module_param(n_devs, int, 0444);
MODULE_PARM_DESC(n_devs, "media devices, all of the same model");

static unsigned int fail_probe;
module_param(fail_probe, uint, 0444);
MODULE_PARM_DESC(fail_probe, "step of a device's set-up that fails, a moment late");

atomic_t vengine_counts[VENGINE_COUNTS];

/*
 * To be asked before each step of the set-up. The pause lets whoever waits for the nodes open those
 * that are there.
 */
static int vengine_step(struct vengine *engine)
{
	if (++engine->steps != fail_probe)
		return 0;
	msleep(100);
	return -ENOMEM;
}

/* Topology */

static int vengine_add_entity(struct vengine *engine, struct media_entity *entity)
{
	int ret = vengine_step(engine) ?: media_device_register_entity(&engine->mdev, entity);

	/* A failed registration leaves the entity looking as if it were to be unregistered. */
	if (ret)
		entity->graph_obj.mdev = NULL;
	return ret;
}

/* Nodes start, stop and change their links independently: each is a pipeline of its own. */
static bool vengine_pads_depend(struct media_entity *entity, unsigned int pad0, unsigned int pad1)
{
	return false;
}

static const struct media_entity_operations vengine_core_ops = {
	.has_pad_interdep = vengine_pads_depend,
};

static int vengine_add_core(struct vengine *engine)
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
	core->ops = &vengine_core_ops;
	ret = media_entity_pads_init(core, VENGINE_CORE_PADS, engine->core_pads);
	return ret ?: vengine_add_entity(engine, core);
}

static int vengine_link_port(struct vengine *engine, u32 n)
{
	struct media_entity *node = &engine->ports[n].vdev.entity;
	u32 flags = vengine_ports[n].immutable ? MEDIA_LNK_FL_ENABLED | MEDIA_LNK_FL_IMMUTABLE : 0;

	if (V4L2_TYPE_IS_OUTPUT(vengine_ports[n].buf_type))
		return media_create_pad_link(node, 0, &engine->core, n, flags);
	return media_create_pad_link(&engine->core, n, node, 0, flags);
}

static int vengine_add_entities(struct vengine *engine)
{
	u32 n;
	int ret;

	ret = vengine_add_core(engine);
	if (!ret)
		ret = vengine_subdev_init(engine);
	if (!ret)
		ret = vengine_add_entity(engine, &engine->sd.entity);
	if (!ret)
		ret = media_create_pad_link(&engine->sd.entity, 0, &engine->core,
					    VENGINE_SUBDEV_CORE_PAD,
					    MEDIA_LNK_FL_ENABLED | MEDIA_LNK_FL_IMMUTABLE);
	for (n = 0; n < VENGINE_PORTS && !ret; n++) {
		ret = vengine_port_init(engine, n);
		if (!ret)
			ret = vengine_add_entity(engine, &engine->ports[n].vdev.entity);
		if (!ret)
			ret = vengine_link_port(engine, n);
	}
	return ret;
}

/* Nodes */

static int vengine_add_interface(struct vengine *engine, struct media_entity *entity,
				 struct video_device *vdev, u32 type)
{
	int ret = vengine_step(engine);

	if (ret)
		return ret;
	entity->info.dev.major = VIDEO_MAJOR;
	entity->info.dev.minor = vdev->minor;
	vdev->intf_devnode = media_devnode_create(&engine->mdev, type, 0, VIDEO_MAJOR,
						  vdev->minor);
	if (!vdev->intf_devnode ||
	    !media_create_intf_link(entity, &vdev->intf_devnode->intf,
				    MEDIA_LNK_FL_ENABLED | MEDIA_LNK_FL_IMMUTABLE))
		return -ENOMEM;
	return 0;
}

/*
 * Nodes can be opened once they are registered, so they come last. The core would add their
 * entities and interfaces as well, but ignores failures to do so and then trips over what is not
 * there. It is therefore shown the media device only when all is complete.
 */
static int vengine_add_nodes(struct vengine *engine)
{
	u32 n;
	int ret;

	ret = vengine_step(engine) ?: vengine_subdev_register(engine);
	if (!ret)
		ret = vengine_add_interface(engine, &engine->sd.entity, engine->sd.devnode,
					    MEDIA_INTF_T_V4L_SUBDEV);
	for (n = 0; n < VENGINE_PORTS && !ret; n++) {
		struct video_device *vdev = &engine->ports[n].vdev;

		ret = vengine_step(engine) ?: video_register_device(vdev, VFL_TYPE_VIDEO, -1);
		if (!ret)
			ret = vengine_add_interface(engine, &vdev->entity, vdev,
						    MEDIA_INTF_T_V4L_VIDEO);
	}
	if (!ret)
		ret = vengine_step(engine) ?: media_device_register(&engine->mdev);
	if (!ret)
		engine->v4l2_dev.mdev = &engine->mdev;
	return ret;
}

static void vengine_remove_interface(struct video_device *vdev)
{
	if (vdev && vdev->intf_devnode) {
		media_devnode_remove(vdev->intf_devnode);
		vdev->intf_devnode = NULL;
	}
}

/* What the core does itself once it has been shown the media device. */
static void vengine_remove_entities(struct vengine *engine)
{
	u32 n;

	for (n = 0; n < VENGINE_PORTS; n++) {
		vengine_remove_interface(&engine->ports[n].vdev);
		media_device_unregister_entity(&engine->ports[n].vdev.entity);
	}
	vengine_remove_interface(engine->sd.devnode);
	media_device_unregister_entity(&engine->sd.entity);
	media_device_unregister_entity(&engine->core);
}

/* Device */

/* The last node, request or fence is gone, and the device. */
static void vengine_release(struct v4l2_device *v4l2_dev)
{
	struct vengine *engine = container_of(v4l2_dev, struct vengine, v4l2_dev);
	u32 n;

	for (n = 0; n < VENGINE_PORTS; n++)
		v4l2_ctrl_handler_free(&engine->ports[n].controls);
	media_device_cleanup(&engine->mdev);
	put_device(engine->dev);
	kfree(engine);
}

/* Undoes all that probing may have done, whether or not it has come so far. */
static void vengine_teardown(void *data)
{
	struct vengine *engine = data;
	u32 n;

	vengine_debugfs_cleanup(engine);
	for (n = 0; n < VENGINE_PORTS; n++)
		vb2_video_unregister_device(&engine->ports[n].vdev);
	media_device_unregister(&engine->mdev);
	if (!engine->v4l2_dev.mdev)
		vengine_remove_entities(engine);
	v4l2_device_unregister_subdev(&engine->sd);
	vengine_engine_cleanup(engine);
	v4l2_device_unregister(&engine->v4l2_dev);
	v4l2_device_put(&engine->v4l2_dev);
}

static int vengine_probe(struct platform_device *pdev)
{
	struct vengine *engine;
	int ret;

	engine = kzalloc(sizeof(*engine), GFP_KERNEL);
	if (!engine)
		return -ENOMEM;
	engine->dev = get_device(&pdev->dev);
	engine->mdev.dev = &pdev->dev;
	engine->mdev.ops = &vengine_media_ops;
	engine->mdev.hw_revision = 1;
	strscpy(engine->mdev.model, model, sizeof(engine->mdev.model));
	media_device_init(&engine->mdev);
	engine->v4l2_dev.release = vengine_release;
	vengine_tests_init(engine);
	ret = v4l2_device_register(&pdev->dev, &engine->v4l2_dev);
	if (ret) {
		vengine_release(&engine->v4l2_dev);
		return ret;
	}
	ret = devm_add_action_or_reset(&pdev->dev, vengine_teardown, engine);
	if (!ret)
		ret = vengine_step(engine) ?: vengine_engine_init(engine);
	if (!ret)
		ret = vengine_add_entities(engine);
	if (!ret)
		ret = vengine_add_nodes(engine);
	if (!ret)
		vengine_debugfs_register(engine);
	return ret;
}

static struct platform_driver vengine_driver = {
	.probe = vengine_probe,
	.driver = {
		.name = VENGINE_DRIVER,
		.probe_type = PROBE_FORCE_SYNCHRONOUS,
		/* Open nodes, requests and fences hold the module, but nothing holds a binding. */
		.suppress_bind_attrs = true,
	},
};

/* Module */

static struct platform_device *vengine_devices[VENGINE_MAX_DEVICES];

static int vengine_add_device(int n)
{
	struct platform_device *pdev;

	pdev = platform_device_register_simple(VENGINE_DRIVER, n ? n : PLATFORM_DEVID_NONE, NULL,
					       0);
	if (IS_ERR(pdev))
		return PTR_ERR(pdev);
	vengine_devices[n] = pdev;
	return pdev->dev.driver ? 0 : -ENODEV;
}

/*
 * A load that fails frees the module whoever still has a node open, so this waits for them. What
 * drops a reference to the module as its last act has to return before the code goes.
 */
static void vengine_unload(void)
{
	int n;

	for (n = 0; n < VENGINE_MAX_DEVICES; n++)
		platform_device_unregister(vengine_devices[n]);
	platform_driver_unregister(&vengine_driver);
	while (module_refcount(THIS_MODULE) > 1)
		msleep(20);
	synchronize_rcu_tasks();
	WARN_ON(!vengine_counts_clean());
}

static int __init vengine_module_init(void)
{
	int n, ret;

	if (n_devs < 1 || n_devs > VENGINE_MAX_DEVICES)
		return -EINVAL;
	ret = platform_driver_register(&vengine_driver);
	if (ret)
		return ret;
	for (n = 0; n < n_devs && !ret; n++)
		ret = vengine_add_device(n);
	if (ret)
		vengine_unload();
	return ret;
}
module_init(vengine_module_init);

static void __exit vengine_module_exit(void)
{
	vengine_unload();
}
module_exit(vengine_module_exit);

MODULE_DESCRIPTION("Virtual image engine with media requests");
MODULE_AUTHOR("The corvane developers");
MODULE_LICENSE("GPL");
MODULE_IMPORT_NS(DMA_BUF);
