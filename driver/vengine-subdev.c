// SPDX-License-Identifier: GPL-2.0
/*
 * The virtual engine's sub-device: frame-sync events, controls and the private ioctls, whose
 * answers vengine-desc.h lists.
 */
#include <linux/dma-buf.h>
#include <linux/dma-fence.h>
#include <linux/file.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/sync_file.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include <media/v4l2-event.h>
#include <media/v4l2-ioctl.h>

#include <corvane/kvxdip.h>

#include "vengine.h"

#define VENGINE_MEMORY_SIZE 4096

/* A dma-buf in a table of a file; coherence is 0 in the KVA table. */
struct vengine_mapping {
	struct list_head node;
	struct dma_buf *dmabuf;
	u8 coherence;
};

struct vengine_memory {
	struct list_head node;
	struct kvxdip_memory flags;
	void *data;
};

struct vengine_fence {
	struct dma_fence base;		/* first: freed by it */
	struct list_head node;
	spinlock_t lock;		/* the base's */
};

/* What one open file of the sub-device holds. */
struct vengine_file {
	struct list_head node;
	struct v4l2_fh *fh;
	struct list_head kva, iova, memory, fences;
	unsigned int num_kva, num_iova, num_memory, num_fences;
};

union vengine_args {
	struct kvxdip_kva kva;
	struct kvxdip_iova iova;
	struct kvxdip_memory memory;
	struct kvxdip_fence fence;
	struct kvxdip_control control;
	struct kvxdip_init_info init_info;
	struct kvxdip_user_resource user;
};

/* Mappings */

static void vengine_free_mappings(struct list_head *mappings, enum vengine_count what)
{
	struct vengine_mapping *mapping, *next;

	list_for_each_entry_safe(mapping, next, mappings, node) {
		list_del(&mapping->node);
		dma_buf_put(mapping->dmabuf);
		kfree(mapping);
		vengine_count(what, -1);
	}
}

/* Adds a mapping of fd to a list. */
static int vengine_map_fd(struct list_head *mappings, enum vengine_count what, s32 fd, u8 coherence)
{
	struct vengine_mapping *mapping;
	struct dma_buf *dmabuf = dma_buf_get(fd);

	if (IS_ERR(dmabuf))
		return PTR_ERR(dmabuf);
	mapping = kzalloc(sizeof(*mapping), GFP_KERNEL);
	if (!mapping) {
		dma_buf_put(dmabuf);
		return -ENOMEM;
	}
	mapping->dmabuf = dmabuf;
	mapping->coherence = coherence;
	list_add_tail(&mapping->node, mappings);
	vengine_count(what, 1);
	return 0;
}

/* Moves a mapping of fd from one list to another. */
static int vengine_find_fd(struct list_head *from, struct list_head *to, s32 fd, u8 coherence)
{
	struct dma_buf *dmabuf = dma_buf_get(fd);
	struct vengine_mapping *mapping;
	int ret = -ENOENT;

	if (IS_ERR(dmabuf))
		return PTR_ERR(dmabuf);
	list_for_each_entry(mapping, from, node) {
		if (mapping->dmabuf == dmabuf && mapping->coherence == coherence) {
			list_move_tail(&mapping->node, to);
			ret = 0;
			break;
		}
	}
	dma_buf_put(dmabuf);
	return ret;
}

static int vengine_add_kva(struct vengine *engine, struct vengine_file *file,
			   union vengine_args *args)
{
	LIST_HEAD(added);
	int ret = 0;
	u8 n;

	if (!args->kva.count || args->kva.count > KVXDIP_KVA_MAX)
		return -EINVAL;
	if (file->num_kva + args->kva.count > VENGINE_MAX_KVA)
		return -ENOSPC;
	for (n = 0; n < args->kva.count && !ret; n++)
		ret = vengine_map_fd(&added, VENGINE_COUNT_KVA, args->kva.fd[n], 0);
	if (ret) {
		vengine_free_mappings(&added, VENGINE_COUNT_KVA);
		return ret;
	}
	list_splice_tail(&added, &file->kva);
	file->num_kva += args->kva.count;
	return 0;
}

static int vengine_del_kva(struct vengine *engine, struct vengine_file *file,
			   union vengine_args *args)
{
	LIST_HEAD(gone);
	int ret = 0;
	u8 n;

	if (!args->kva.count || args->kva.count > KVXDIP_KVA_MAX)
		return -EINVAL;
	for (n = 0; n < args->kva.count && !ret; n++)
		ret = vengine_find_fd(&file->kva, &gone, args->kva.fd[n], 0);
	if (ret) {
		list_splice_tail(&gone, &file->kva);
		return ret;
	}
	vengine_free_mappings(&gone, VENGINE_COUNT_KVA);
	file->num_kva -= args->kva.count;
	return 0;
}

static int vengine_acquire_iova(struct vengine *engine, struct vengine_file *file,
				union vengine_args *args)
{
	int ret;

	if (args->iova.count != 1 || args->iova.coherence > 1)
		return -EINVAL;
	if (file->num_iova == VENGINE_MAX_IOVA)
		return -ENOSPC;
	ret = vengine_map_fd(&file->iova, VENGINE_COUNT_IOVA, args->iova.fd, args->iova.coherence);
	if (!ret)
		file->num_iova++;
	return ret;
}

static int vengine_release_iova(struct vengine *engine, struct vengine_file *file,
				union vengine_args *args)
{
	LIST_HEAD(gone);
	int ret;

	if (args->iova.count != 1 || args->iova.coherence > 1)
		return -EINVAL;
	ret = vengine_find_fd(&file->iova, &gone, args->iova.fd, args->iova.coherence);
	if (ret)
		return ret;
	vengine_free_mappings(&gone, VENGINE_COUNT_IOVA);
	file->num_iova--;
	return 0;
}

/* Working memory */

static void vengine_free_memory(struct vengine_file *file, struct vengine_memory *memory)
{
	list_del(&memory->node);
	vfree(memory->data);
	kfree(memory);
	file->num_memory--;
	vengine_count(VENGINE_COUNT_MEMORY, -1);
}

static int vengine_aloc_buf(struct vengine *engine, struct vengine_file *file,
			    union vengine_args *args)
{
	struct vengine_memory *memory;

	if (file->num_memory == VENGINE_MAX_MEMORY)
		return -ENOMEM;
	memory = kzalloc(sizeof(*memory), GFP_KERNEL);
	if (!memory)
		return -ENOMEM;
	memory->data = vzalloc(VENGINE_MEMORY_SIZE);
	if (!memory->data) {
		kfree(memory);
		return -ENOMEM;
	}
	memory->flags = args->memory;
	list_add_tail(&memory->node, &file->memory);
	file->num_memory++;
	vengine_count(VENGINE_COUNT_MEMORY, 1);
	return 0;
}

static int vengine_free_buf(struct vengine *engine, struct vengine_file *file,
			    union vengine_args *args)
{
	struct vengine_memory *memory;

	list_for_each_entry(memory, &file->memory, node) {
		if (!memcmp(&memory->flags, &args->memory, sizeof(memory->flags))) {
			vengine_free_memory(file, memory);
			return 0;
		}
	}
	return -ENOENT;
}

/* Fences */

static const char *vengine_fence_name(struct dma_fence *fence)
{
	return VENGINE_DRIVER;
}

/* A fence holds the module: whoever has its descriptor may call the operations below. */
static void vengine_fence_release(struct dma_fence *fence)
{
	dma_fence_free(fence);
	vengine_count(VENGINE_COUNT_FENCES, -1);
	module_put(THIS_MODULE);
}

static const struct dma_fence_ops vengine_fence_ops = {
	.get_driver_name = vengine_fence_name,
	.get_timeline_name = vengine_fence_name,
	.release = vengine_fence_release,
};

/* A file that stands for a new fence, which the list refers to. */
static struct sync_file *vengine_make_fence(struct vengine *engine, struct list_head *fences)
{
	struct vengine_fence *fence = kzalloc(sizeof(*fence), GFP_KERNEL);
	struct sync_file *sync;

	if (!fence)
		return NULL;
	__module_get(THIS_MODULE);
	vengine_count(VENGINE_COUNT_FENCES, 1);
	spin_lock_init(&fence->lock);
	dma_fence_init(&fence->base, &vengine_fence_ops, &fence->lock, engine->fence_context,
		       ++engine->fence_seqno);
	sync = sync_file_create(&fence->base);
	if (sync)
		list_add_tail(&fence->node, fences);
	else
		dma_fence_put(&fence->base);
	return sync;
}

/* Drops the references of a list; no fence may stay pending with nobody left to signal it. */
static void vengine_drop_fences(struct list_head *fences)
{
	struct vengine_fence *fence, *next;

	list_for_each_entry_safe(fence, next, fences, node) {
		list_del(&fence->node);
		if (!dma_fence_is_signaled(&fence->base)) {
			dma_fence_set_error(&fence->base, -ECANCELED);
			dma_fence_signal(&fence->base);
		}
		dma_fence_put(&fence->base);
	}
}

static int vengine_make_fences(struct vengine *engine, struct vengine_file *file, s32 __user *user,
			       struct sync_file **syncs, s32 *fds, unsigned int count)
{
	LIST_HEAD(fences);
	unsigned int made, n;
	int ret = 0;

	for (made = 0; made < count; made++) {
		syncs[made] = vengine_make_fence(engine, &fences);
		fds[made] = syncs[made] ? get_unused_fd_flags(O_CLOEXEC) : -ENOMEM;
		if (fds[made] < 0) {
			ret = fds[made];
			if (syncs[made])
				fput(syncs[made]->file);
			break;
		}
	}
	if (!ret && copy_to_user(user, fds, count * sizeof(*fds)))
		ret = -EFAULT;
	for (n = 0; n < made; n++) {
		if (!ret) {
			fd_install(fds[n], syncs[n]->file);
		} else {
			put_unused_fd(fds[n]);
			fput(syncs[n]->file);
		}
	}
	if (ret) {
		vengine_drop_fences(&fences);
		return ret;
	}
	list_splice_tail(&fences, &file->fences);
	file->num_fences += count;
	return 0;
}

static int vengine_add_fence(struct vengine *engine, struct vengine_file *file,
			     union vengine_args *args)
{
	unsigned int count = args->fence.count;
	struct sync_file **syncs;
	int ret = -ENOMEM;
	s32 *fds;

	if (file->num_fences + count > VENGINE_MAX_FENCES)
		return -ENOSPC;
	if (!count)
		return 0;
	syncs = kcalloc(count, sizeof(*syncs), GFP_KERNEL);
	fds = kcalloc(count, sizeof(*fds), GFP_KERNEL);
	if (syncs && fds)
		ret = vengine_make_fences(engine, file, u64_to_user_ptr(args->fence.fds), syncs,
					  fds, count);
	kfree(fds);
	kfree(syncs);
	return ret;
}

/* Moves the fence of fd from one list to another. */
static int vengine_find_fence(struct list_head *from, struct list_head *to, s32 fd)
{
	struct dma_fence *wanted = sync_file_get_fence(fd);
	struct vengine_fence *fence;
	int ret = -EINVAL;

	if (!wanted)
		return -EINVAL;
	list_for_each_entry(fence, from, node) {
		if (&fence->base == wanted) {
			list_move_tail(&fence->node, to);
			ret = 0;
			break;
		}
	}
	dma_fence_put(wanted);
	return ret;
}

static int vengine_del_fence(struct vengine *engine, struct vengine_file *file,
			     union vengine_args *args)
{
	unsigned int n, count = args->fence.count;
	LIST_HEAD(gone);
	int ret = 0;
	s32 *fds;

	if (!count)
		return 0;
	fds = memdup_user(u64_to_user_ptr(args->fence.fds), count * sizeof(*fds));
	if (IS_ERR(fds))
		return PTR_ERR(fds);
	for (n = 0; n < count && !ret; n++)
		ret = vengine_find_fence(&file->fences, &gone, fds[n]);
	kfree(fds);
	if (ret) {
		list_splice_tail(&gone, &file->fences);
		return ret;
	}
	vengine_drop_fences(&gone);
	file->num_fences -= count;
	return 0;
}

/* Controls, init info, user resources */

static int vengine_find_control(s32 id)
{
	unsigned int n;

	for (n = 0; n < VENGINE_CONTROLS; n++)
		if (vengine_controls[n].id == id)
			return n;
	return -EINVAL;
}

static int vengine_set_control(struct vengine *engine, struct vengine_file *file,
			       union vengine_args *args)
{
	s32 value = args->control.value;
	int n = vengine_find_control(args->control.id);

	if (n < 0)
		return n;
	if (value < vengine_controls[n].min || value > vengine_controls[n].max)
		return -ERANGE;
	WRITE_ONCE(engine->controls[n], value);
	return 0;
}

static int vengine_get_control(struct vengine *engine, struct vengine_file *file,
			       union vengine_args *args)
{
	int n = vengine_find_control(args->control.id);

	if (n < 0)
		return n;
	args->control.value = engine->controls[n];
	return 0;
}

static int vengine_s_init_info(struct vengine *engine, struct vengine_file *file,
			       union vengine_args *args)
{
	memcpy(engine->init_info, args->init_info.data, sizeof(engine->init_info));
	return 0;
}

static int vengine_clear_user_resource(struct vengine *engine, struct vengine_file *file,
				       union vengine_args *args)
{
	struct vengine_memory *memory, *next;

	vengine_free_mappings(&file->kva, VENGINE_COUNT_KVA);
	vengine_free_mappings(&file->iova, VENGINE_COUNT_IOVA);
	vengine_drop_fences(&file->fences);
	list_for_each_entry_safe(memory, next, &file->memory, node)
		vengine_free_memory(file, memory);
	file->num_kva = 0;
	file->num_iova = 0;
	file->num_fences = 0;
	return 0;
}

/* Files and dispatch */

static const struct vengine_private {
	unsigned int cmd;
	enum vengine_op op;
	int (*handler)(struct vengine *engine, struct vengine_file *file, union vengine_args *args);
} vengine_privates[] = {
	{ KVXDIP_IOC_ADD_KVA, VENGINE_OP_ADD_KVA, vengine_add_kva },
	{ KVXDIP_IOC_DEL_KVA, VENGINE_OP_DEL_KVA, vengine_del_kva },
	{ KVXDIP_IOC_S_INIT_INFO, VENGINE_OP_S_INIT_INFO, vengine_s_init_info },
	{ KVXDIP_IOC_SET_CONTROL, VENGINE_OP_SET_CONTROL, vengine_set_control },
	{ KVXDIP_IOC_GET_CONTROL, VENGINE_OP_GET_CONTROL, vengine_get_control },
	{ KVXDIP_IOC_ADD_FENCE, VENGINE_OP_ADD_FENCE, vengine_add_fence },
	{ KVXDIP_IOC_DEL_FENCE, VENGINE_OP_DEL_FENCE, vengine_del_fence },
	{ KVXDIP_IOC_ALOC_BUF, VENGINE_OP_ALOC_BUF, vengine_aloc_buf },
	{ KVXDIP_IOC_FREE_BUF, VENGINE_OP_FREE_BUF, vengine_free_buf },
	{ KVXDIP_IOC_CLEAR_USER_RESOURCE, VENGINE_OP_CLEAR_USER_RESOURCE,
	  vengine_clear_user_resource },
	{ KVXDIP_IOC_ACQUIRE_IOVA, VENGINE_OP_ACQUIRE_IOVA, vengine_acquire_iova },
	{ KVXDIP_IOC_RELEASE_IOVA, VENGINE_OP_RELEASE_IOVA, vengine_release_iova },
};

static struct vengine *vengine_of_subdev(struct v4l2_subdev *sd)
{
	return container_of(sd, struct vengine, sd);
}

static struct vengine_file *vengine_find_file(struct vengine *engine, struct v4l2_fh *fh)
{
	struct vengine_file *file;

	lockdep_assert_held(&engine->sub_lock);
	list_for_each_entry(file, &engine->files, node)
		if (file->fh == fh)
			return file;
	return NULL;
}

static int vengine_subdev_open(struct v4l2_subdev *sd, struct v4l2_subdev_fh *fh)
{
	struct vengine *engine = vengine_of_subdev(sd);
	struct vengine_file *file = kzalloc(sizeof(*file), GFP_KERNEL);

	if (!file)
		return -ENOMEM;
	file->fh = &fh->vfh;
	INIT_LIST_HEAD(&file->kva);
	INIT_LIST_HEAD(&file->iova);
	INIT_LIST_HEAD(&file->memory);
	INIT_LIST_HEAD(&file->fences);
	mutex_lock(&engine->sub_lock);
	list_add_tail(&file->node, &engine->files);
	mutex_unlock(&engine->sub_lock);
	vengine_count(VENGINE_COUNT_FILES, 1);
	return 0;
}

static int vengine_subdev_close(struct v4l2_subdev *sd, struct v4l2_subdev_fh *fh)
{
	struct vengine *engine = vengine_of_subdev(sd);
	struct vengine_file *file;

	mutex_lock(&engine->sub_lock);
	file = vengine_find_file(engine, &fh->vfh);
	vengine_clear_user_resource(engine, file, NULL);
	list_del(&file->node);
	mutex_unlock(&engine->sub_lock);
	kfree(file);
	vengine_count(VENGINE_COUNT_FILES, -1);
	return 0;
}

static const struct v4l2_subdev_internal_ops vengine_subdev_internal_ops = {
	.open = vengine_subdev_open,
	.close = vengine_subdev_close,
};

static long vengine_private_ioctl(struct vengine *engine, struct v4l2_fh *fh,
				  const struct vengine_private *private, void __user *user)
{
	size_t size = _IOC_SIZE(private->cmd);
	union vengine_args args = { };
	long ret;

	if (copy_from_user(&args, user, size))
		return -EFAULT;
	vengine_record(engine, private->op, &args, size);
	ret = vengine_fault(engine, private->op, VENGINE_SUBDEV_ENTITY);
	if (ret)
		return ret;
	mutex_lock(&engine->sub_lock);
	ret = private->handler(engine, vengine_find_file(engine, fh), &args);
	mutex_unlock(&engine->sub_lock);
	if (!ret && (_IOC_DIR(private->cmd) & _IOC_READ) && copy_to_user(user, &args, size))
		ret = -EFAULT;
	return ret;
}

/*
 * Stands before the sub-device core's own ioctl, which does not tell a driver the open file:
 * private ioctls end here, all others go on.
 */
static long vengine_subdev_ioctl(struct file *file, unsigned int cmd, unsigned long arg)
{
	struct v4l2_subdev *sd = vdev_to_v4l2_subdev(video_devdata(file));
	struct vengine *engine = vengine_of_subdev(sd);
	unsigned int n;
	int ret;

	for (n = 0; n < ARRAY_SIZE(vengine_privates); n++)
		if (vengine_privates[n].cmd == cmd)
			return vengine_private_ioctl(engine, file->private_data,
						     &vengine_privates[n], (void __user *)arg);
	if (cmd == VIDIOC_DQEVENT) {
		ret = vengine_fault(engine, VENGINE_OP_DQEVENT, VENGINE_SUBDEV_ENTITY);
		if (ret)
			return ret;
	}
	return engine->core_fops->unlocked_ioctl(file, cmd, arg);
}

/* Events */

static int vengine_event_add(struct v4l2_subscribed_event *sev, unsigned int elems)
{
	vengine_count(VENGINE_COUNT_EVENTS, 1);
	return 0;
}

static void vengine_event_del(struct v4l2_subscribed_event *sev)
{
	vengine_count(VENGINE_COUNT_EVENTS, -1);
}

static const struct v4l2_subscribed_event_ops vengine_event_ops = {
	.add = vengine_event_add,
	.del = vengine_event_del,
};

static int vengine_subscribe_event(struct v4l2_subdev *sd, struct v4l2_fh *fh,
				   struct v4l2_event_subscription *sub)
{
	int ret = vengine_fault(vengine_of_subdev(sd), VENGINE_OP_SUBSCRIBE_EVENT,
				VENGINE_SUBDEV_ENTITY);

	if (ret)
		return ret;
	if (sub->type != V4L2_EVENT_FRAME_SYNC || sub->id)
		return -EINVAL;
	return v4l2_event_subscribe(fh, sub, VENGINE_EVENTS, &vengine_event_ops);
}

static int vengine_unsubscribe_event(struct v4l2_subdev *sd, struct v4l2_fh *fh,
				     struct v4l2_event_subscription *sub)
{
	return vengine_fault(vengine_of_subdev(sd), VENGINE_OP_UNSUBSCRIBE_EVENT,
			     VENGINE_SUBDEV_ENTITY) ?:
	       v4l2_event_unsubscribe(fh, sub);
}

/*
 * The pictures of a request are there. Its events and fences come before its buffers are given
 * back: whoever sees the request complete finds them too.
 */
void vengine_subdev_completed(struct vengine *engine, u32 frame)
{
	struct v4l2_event event = {
		.type = V4L2_EVENT_FRAME_SYNC,
		.u.frame_sync.frame_sequence = frame,
	};
	struct vengine_fence *fence;
	struct vengine_file *file;

	mutex_lock(&engine->sub_lock);
	list_for_each_entry(file, &engine->files, node)
		list_for_each_entry(fence, &file->fences, node)
			dma_fence_signal(&fence->base);
	mutex_unlock(&engine->sub_lock);
	v4l2_event_queue(engine->sd.devnode, &event);
}

static const struct v4l2_subdev_core_ops vengine_subdev_core_ops = {
	.subscribe_event = vengine_subscribe_event,
	.unsubscribe_event = vengine_unsubscribe_event,
};

static const struct v4l2_subdev_ops vengine_subdev_ops = {
	.core = &vengine_subdev_core_ops,
};

int vengine_subdev_init(struct vengine *engine)
{
	struct v4l2_subdev *sd = &engine->sd;
	unsigned int n;
	int ret;

	mutex_init(&engine->sub_lock);
	INIT_LIST_HEAD(&engine->files);
	for (n = 0; n < VENGINE_CONTROLS; n++)
		engine->controls[n] = vengine_controls[n].def;
	engine->fence_context = dma_fence_context_alloc(1);
	v4l2_subdev_init(sd, &vengine_subdev_ops);
	sd->internal_ops = &vengine_subdev_internal_ops;
	sd->owner = THIS_MODULE;
	sd->dev = engine->dev;
	sd->flags = V4L2_SUBDEV_FL_HAS_DEVNODE | V4L2_SUBDEV_FL_HAS_EVENTS;
	strscpy(sd->name, VENGINE_SUBDEV_ENTITY, sizeof(sd->name));
	sd->entity.function = VENGINE_SUBDEV_FUNCTION;
	engine->sd_pad.flags = MEDIA_PAD_FL_SOURCE;
	ret = media_entity_pads_init(&sd->entity, 1, &engine->sd_pad);
	return ret ?: v4l2_device_register_subdev(&engine->v4l2_dev, sd);
}

int vengine_subdev_register_node(struct vengine *engine)
{
	int ret = v4l2_device_register_subdev_nodes(&engine->v4l2_dev);

	if (ret)
		return ret;
	engine->core_fops = engine->sd.devnode->fops;
	engine->sd_fops = *engine->core_fops;
	engine->sd_fops.unlocked_ioctl = vengine_subdev_ioctl;
	/* Both tables work: whoever opens the node before this only gets no private ioctls yet. */
	WRITE_ONCE(engine->sd.devnode->fops, &engine->sd_fops);
	return 0;
}

void vengine_subdev_cleanup(struct vengine *engine)
{
	if (engine->sd.v4l2_dev)
		v4l2_device_unregister_subdev(&engine->sd);
	media_entity_cleanup(&engine->sd.entity);
}
