// SPDX-License-Identifier: GPL-2.0-only
/*
 * The virtual engine's sub-device: frame-sync events, controls and the private ioctls, whose
 * answers vengine-desc.h lists.
 */
#include <linux/compat.h>
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

/* What the structures of all that a file holds begin with: whose it is. */
struct vengine_holding {
	struct list_head node;		/* in vengine_table.holdings */
	u64 user;			/* named by S_INIT_INFO */
	pid_t process;
};

/* Holdings of one kind, and how many they are with those that are being obtained. */
struct vengine_table {
	struct list_head holdings;
	unsigned int count;
};

/* A dma-buf; coherence is 0 in the KVA table. */
struct vengine_mapping {
	struct vengine_holding holding;	/* first */
	struct dma_buf *dmabuf;
	u8 coherence;
};

struct vengine_memory {
	struct vengine_holding holding;	/* first */
	struct kvxdip_memory flags;
	void *data;
};

struct vengine_fence {
	struct dma_fence base;		/* first: freed by it */
	struct vengine_holding holding;
	struct list_head pending;	/* in vengine.pending until it is signalled */
	spinlock_t lock;		/* the base's */
};

/* One open file of the sub-device. */
struct vengine_file {
	struct list_head node;
	struct v4l2_fh *fh;
	u64 user;
	struct vengine_table kva, iova, memory, fences;
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

/* Tables */

/*
 * Takes room for what is about to be obtained, outside the lock: that may sleep for as long as it
 * likes. It is then either kept or given back.
 */
static int vengine_reserve(struct vengine *engine, struct vengine_table *table, unsigned int count,
			   unsigned int limit)
{
	int ret = 0;

	mutex_lock(&engine->sub_lock);
	if (count > limit - table->count)
		ret = -ENOSPC;
	else
		table->count += count;
	mutex_unlock(&engine->sub_lock);
	return ret;
}

static void vengine_give_back(struct vengine *engine, struct vengine_table *table,
			      unsigned int count)
{
	mutex_lock(&engine->sub_lock);
	table->count -= count;
	mutex_unlock(&engine->sub_lock);
}

static void vengine_keep(struct vengine *engine, struct vengine_file *file,
			 struct vengine_table *table, struct list_head *obtained)
{
	struct vengine_holding *holding;

	mutex_lock(&engine->sub_lock);
	list_for_each_entry(holding, obtained, node) {
		holding->user = file->user;
		holding->process = task_tgid_nr(current);
	}
	list_splice_tail(obtained, &table->holdings);
	mutex_unlock(&engine->sub_lock);
}

/* Mappings */

static void vengine_free_mappings(struct list_head *mappings, enum vengine_count what)
{
	struct vengine_mapping *mapping, *next;

	list_for_each_entry_safe(mapping, next, mappings, holding.node) {
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
	list_add_tail(&mapping->holding.node, mappings);
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
	list_for_each_entry(mapping, from, holding.node) {
		if (mapping->dmabuf == dmabuf && mapping->coherence == coherence) {
			list_move_tail(&mapping->holding.node, to);
			ret = 0;
			break;
		}
	}
	dma_buf_put(dmabuf);
	return ret;
}

/* The records that descriptors come from are packed. */
static s32 vengine_fd_at(const void *fds, unsigned int n)
{
	s32 fd;

	memcpy(&fd, fds + n * sizeof(fd), sizeof(fd));
	return fd;
}

/* All of the descriptors, or none. */
static int vengine_map_fds(struct vengine *engine, struct vengine_file *file,
			   struct vengine_table *table, enum vengine_count what,
			   unsigned int limit, const void *fds, u8 count, u8 coherence)
{
	LIST_HEAD(obtained);
	int ret = vengine_reserve(engine, table, count, limit);
	u8 n;

	if (ret)
		return ret;
	for (n = 0; n < count && !ret; n++)
		ret = vengine_map_fd(&obtained, what, vengine_fd_at(fds, n), coherence);
	if (ret) {
		vengine_free_mappings(&obtained, what);
		vengine_give_back(engine, table, count);
		return ret;
	}
	vengine_keep(engine, file, table, &obtained);
	return 0;
}

static int vengine_unmap_fds(struct vengine *engine, struct vengine_table *table,
			     enum vengine_count what, const void *fds, u8 count, u8 coherence)
{
	LIST_HEAD(gone);
	int ret = 0;
	u8 n;

	mutex_lock(&engine->sub_lock);
	for (n = 0; n < count && !ret; n++)
		ret = vengine_find_fd(&table->holdings, &gone, vengine_fd_at(fds, n), coherence);
	if (ret)
		list_splice_tail_init(&gone, &table->holdings);
	else
		table->count -= count;
	mutex_unlock(&engine->sub_lock);
	vengine_free_mappings(&gone, what);
	return ret;
}

static int vengine_add_kva(struct vengine *engine, struct vengine_file *file,
			   union vengine_args *args)
{
	if (!args->kva.count || args->kva.count > KVXDIP_KVA_MAX)
		return -EINVAL;
	return vengine_map_fds(engine, file, &file->kva, VENGINE_COUNT_KVA, VENGINE_MAX_KVA,
			       args->kva.fd, args->kva.count, 0);
}

static int vengine_del_kva(struct vengine *engine, struct vengine_file *file,
			   union vengine_args *args)
{
	if (!args->kva.count || args->kva.count > KVXDIP_KVA_MAX)
		return -EINVAL;
	return vengine_unmap_fds(engine, &file->kva, VENGINE_COUNT_KVA, args->kva.fd,
				 args->kva.count, 0);
}

static int vengine_acquire_iova(struct vengine *engine, struct vengine_file *file,
				union vengine_args *args)
{
	if (args->iova.count != 1 || args->iova.coherence > 1)
		return -EINVAL;
	return vengine_map_fds(engine, file, &file->iova, VENGINE_COUNT_IOVA, VENGINE_MAX_IOVA,
			       &args->iova.fd, 1, args->iova.coherence);
}

static int vengine_release_iova(struct vengine *engine, struct vengine_file *file,
				union vengine_args *args)
{
	if (args->iova.count != 1 || args->iova.coherence > 1)
		return -EINVAL;
	return vengine_unmap_fds(engine, &file->iova, VENGINE_COUNT_IOVA, &args->iova.fd, 1,
				 args->iova.coherence);
}

/* Working memory */

static void vengine_free_memory(struct list_head *memories)
{
	struct vengine_memory *memory, *next;

	list_for_each_entry_safe(memory, next, memories, holding.node) {
		vfree(memory->data);
		kfree(memory);
		vengine_count(VENGINE_COUNT_MEMORY, -1);
	}
}

static int vengine_aloc_buf(struct vengine *engine, struct vengine_file *file,
			    union vengine_args *args)
{
	struct vengine_memory *memory;
	LIST_HEAD(obtained);

	if (vengine_reserve(engine, &file->memory, 1, VENGINE_MAX_MEMORY))
		return -ENOMEM;
	memory = kzalloc(sizeof(*memory), GFP_KERNEL);
	if (memory)
		memory->data = vzalloc(VENGINE_MEMORY_SIZE);
	if (!memory || !memory->data) {
		kfree(memory);
		vengine_give_back(engine, &file->memory, 1);
		return -ENOMEM;
	}
	memory->flags = args->memory;
	vengine_count(VENGINE_COUNT_MEMORY, 1);
	list_add(&memory->holding.node, &obtained);
	vengine_keep(engine, file, &file->memory, &obtained);
	return 0;
}

static int vengine_free_buf(struct vengine *engine, struct vengine_file *file,
			    union vengine_args *args)
{
	struct vengine_memory *memory;
	LIST_HEAD(gone);
	int ret = -ENOENT;

	mutex_lock(&engine->sub_lock);
	list_for_each_entry(memory, &file->memory.holdings, holding.node) {
		if (!memcmp(&memory->flags, &args->memory, sizeof(memory->flags))) {
			list_move(&memory->holding.node, &gone);
			file->memory.count--;
			ret = 0;
			break;
		}
	}
	mutex_unlock(&engine->sub_lock);
	vengine_free_memory(&gone);
	return ret;
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

/*
 * A file that stands for a new fence, which the list refers to. Fences are deleted, and so
 * signalled, in any order: each is a timeline of its own.
 */
static struct sync_file *vengine_make_fence(struct list_head *fences)
{
	struct vengine_fence *fence = kzalloc(sizeof(*fence), GFP_KERNEL);
	struct sync_file *sync;

	if (!fence)
		return NULL;
	__module_get(THIS_MODULE);
	vengine_count(VENGINE_COUNT_FENCES, 1);
	INIT_LIST_HEAD(&fence->pending);
	spin_lock_init(&fence->lock);
	dma_fence_init(&fence->base, &vengine_fence_ops, &fence->lock, dma_fence_context_alloc(1),
		       1);
	sync = sync_file_create(&fence->base);
	if (sync)
		list_add_tail(&fence->holding.node, fences);
	else
		dma_fence_put(&fence->base);
	return sync;
}

/* Drops the references of a list; no fence may stay pending with nobody left to signal it. */
static void vengine_drop_fences(struct vengine *engine, struct list_head *fences)
{
	struct vengine_fence *fence, *next;
	bool pending;

	list_for_each_entry_safe(fence, next, fences, holding.node) {
		spin_lock_irq(&engine->fence_lock);
		pending = !list_empty(&fence->pending);
		list_del_init(&fence->pending);
		spin_unlock_irq(&engine->fence_lock);
		if (pending) {
			dma_fence_set_error(&fence->base, -ECANCELED);
			dma_fence_signal(&fence->base);
		}
		dma_fence_put(&fence->base);
	}
}

/* Signals what waits for the next request to complete, a fence at a time: others may drop them. */
static void vengine_signal_fences(struct vengine *engine)
{
	struct vengine_fence *fence;
	LIST_HEAD(due);

	spin_lock_irq(&engine->fence_lock);
	list_splice_init(&engine->pending, &due);
	while (!list_empty(&due)) {
		fence = list_first_entry(&due, struct vengine_fence, pending);
		list_del_init(&fence->pending);
		dma_fence_get(&fence->base);
		spin_unlock_irq(&engine->fence_lock);
		dma_fence_signal(&fence->base);
		dma_fence_put(&fence->base);
		spin_lock_irq(&engine->fence_lock);
	}
	spin_unlock_irq(&engine->fence_lock);
}

/* New fences, and their descriptors in the user's array: all of them, or none. */
static int vengine_make_fences(s32 __user *user, struct list_head *fences,
			       struct sync_file **syncs, s32 *fds, unsigned int count)
{
	unsigned int made, n;
	int ret = 0;

	for (made = 0; made < count; made++) {
		syncs[made] = vengine_make_fence(fences);
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
	for (n = 0; ret && n < made; n++) {
		put_unused_fd(fds[n]);
		fput(syncs[n]->file);
	}
	return ret;
}

static void vengine_publish_fences(struct vengine *engine, struct vengine_file *file,
				   struct list_head *fences, struct sync_file **syncs, s32 *fds,
				   unsigned int count)
{
	struct vengine_fence *fence;
	unsigned int n;

	spin_lock_irq(&engine->fence_lock);
	list_for_each_entry(fence, fences, holding.node)
		list_add_tail(&fence->pending, &engine->pending);
	spin_unlock_irq(&engine->fence_lock);
	vengine_keep(engine, file, &file->fences, fences);
	for (n = 0; n < count; n++)
		fd_install(fds[n], syncs[n]->file);
}

static int vengine_add_fence(struct vengine *engine, struct vengine_file *file,
			     union vengine_args *args)
{
	unsigned int count = args->fence.count;
	struct sync_file **syncs;
	LIST_HEAD(fences);
	s32 *fds;
	int ret = vengine_reserve(engine, &file->fences, count, VENGINE_MAX_FENCES);

	if (ret || !count)
		return ret;
	syncs = kcalloc(count, sizeof(*syncs), GFP_KERNEL);
	fds = kcalloc(count, sizeof(*fds), GFP_KERNEL);
	ret = -ENOMEM;
	if (syncs && fds)
		ret = vengine_make_fences(u64_to_user_ptr(args->fence.fds), &fences, syncs, fds,
					  count);
	if (ret) {
		vengine_drop_fences(engine, &fences);
		vengine_give_back(engine, &file->fences, count);
	} else {
		vengine_publish_fences(engine, file, &fences, syncs, fds, count);
	}
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
	list_for_each_entry(fence, from, holding.node) {
		if (&fence->base == wanted) {
			list_move_tail(&fence->holding.node, to);
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
	mutex_lock(&engine->sub_lock);
	for (n = 0; n < count && !ret; n++)
		ret = vengine_find_fence(&file->fences.holdings, &gone, fds[n]);
	if (ret)
		list_splice_tail_init(&gone, &file->fences.holdings);
	else
		file->fences.count -= count;
	mutex_unlock(&engine->sub_lock);
	kfree(fds);
	vengine_drop_fences(engine, &gone);
	return ret;
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
	args->control.value = READ_ONCE(engine->controls[n]);
	return 0;
}

/* What is obtained through the file from now on belongs to the user that this names. */
static int vengine_s_init_info(struct vengine *engine, struct vengine_file *file,
			       union vengine_args *args)
{
	mutex_lock(&engine->sub_lock);
	memcpy(engine->init_info, args->init_info.data, sizeof(engine->init_info));
	memcpy(&file->user, args->init_info.data, sizeof(file->user));
	mutex_unlock(&engine->sub_lock);
	return 0;
}

/* Moves to a list what the calling process holds for a user, or everything for no one's. */
static void vengine_withdraw(struct vengine_table *table, const u64 *user, struct list_head *gone)
{
	struct vengine_holding *holding, *next;

	list_for_each_entry_safe(holding, next, &table->holdings, node) {
		if (user && (holding->user != *user ||
			     holding->process != task_tgid_nr(current)))
			continue;
		list_move_tail(&holding->node, gone);
		table->count--;
	}
}

static void vengine_clear(struct vengine *engine, struct vengine_file *file, const u64 *user)
{
	LIST_HEAD(kva);
	LIST_HEAD(iova);
	LIST_HEAD(memory);
	LIST_HEAD(fences);

	mutex_lock(&engine->sub_lock);
	vengine_withdraw(&file->kva, user, &kva);
	vengine_withdraw(&file->iova, user, &iova);
	vengine_withdraw(&file->memory, user, &memory);
	vengine_withdraw(&file->fences, user, &fences);
	mutex_unlock(&engine->sub_lock);
	vengine_free_mappings(&kva, VENGINE_COUNT_KVA);
	vengine_free_mappings(&iova, VENGINE_COUNT_IOVA);
	vengine_free_memory(&memory);
	vengine_drop_fences(engine, &fences);
}

static int vengine_clear_user_resource(struct vengine *engine, struct vengine_file *file,
				       union vengine_args *args)
{
	u64 user = args->user.user_id;

	vengine_clear(engine, file, &user);
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

/* The file of a handle, which stays for as long as the handle. */
static struct vengine_file *vengine_find_file(struct vengine *engine, struct v4l2_fh *fh)
{
	struct vengine_file *file, *found = NULL;

	mutex_lock(&engine->sub_lock);
	list_for_each_entry(file, &engine->files, node)
		if (file->fh == fh)
			found = file;
	mutex_unlock(&engine->sub_lock);
	return found;
}

static void vengine_table_init(struct vengine_table *table)
{
	INIT_LIST_HEAD(&table->holdings);
}

static int vengine_subdev_open(struct v4l2_subdev *sd, struct v4l2_subdev_fh *fh)
{
	struct vengine *engine = vengine_of_subdev(sd);
	struct vengine_file *file = kzalloc(sizeof(*file), GFP_KERNEL);

	if (!file)
		return -ENOMEM;
	file->fh = &fh->vfh;
	vengine_table_init(&file->kva);
	vengine_table_init(&file->iova);
	vengine_table_init(&file->memory);
	vengine_table_init(&file->fences);
	mutex_lock(&engine->sub_lock);
	list_add_tail(&file->node, &engine->files);
	mutex_unlock(&engine->sub_lock);
	vengine_count(VENGINE_COUNT_FILES, 1);
	return 0;
}

static int vengine_subdev_close(struct v4l2_subdev *sd, struct v4l2_subdev_fh *fh)
{
	struct vengine *engine = vengine_of_subdev(sd);
	struct vengine_file *file = vengine_find_file(engine, &fh->vfh);

	vengine_clear(engine, file, NULL);
	mutex_lock(&engine->sub_lock);
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
	ret = private->handler(engine, vengine_find_file(engine, fh), &args);
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

#ifdef CONFIG_COMPAT
/* Comes here with private ioctls only, whose records are the same in a 32-bit program. */
static long vengine_subdev_compat_ioctl(struct file *file, unsigned int cmd, unsigned long arg)
{
	return vengine_subdev_ioctl(file, cmd, (unsigned long)compat_ptr(arg));
}
#endif

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

	vengine_signal_fences(engine);
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
	spin_lock_init(&engine->fence_lock);
	INIT_LIST_HEAD(&engine->pending);
	for (n = 0; n < VENGINE_CONTROLS; n++)
		engine->controls[n] = vengine_controls[n].def;
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

int vengine_subdev_register(struct vengine *engine)
{
	int ret = v4l2_device_register_subdev_nodes(&engine->v4l2_dev);

	if (ret)
		return ret;
	engine->core_fops = engine->sd.devnode->fops;
	engine->sd_fops = *engine->core_fops;
	engine->sd_fops.unlocked_ioctl = vengine_subdev_ioctl;
#ifdef CONFIG_COMPAT
	engine->sd_fops.compat_ioctl32 = vengine_subdev_compat_ioctl;
#endif
	/* Both tables work: whoever opens the node before this only gets no private ioctls yet. */
	WRITE_ONCE(engine->sd.devnode->fops, &engine->sd_fops);
	return 0;
}
