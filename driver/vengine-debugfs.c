// SPDX-License-Identifier: GPL-2.0
/*
 * The virtual engine's test side, in debugfs: faults, what it received, what it holds.
 */
#include <linux/completion.h>
#include <linux/kref.h>
#include <linux/module.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include "vengine.h"

#define VENGINE_MAX_RECORDS 1024

static const char * const vengine_op_names[VENGINE_OPS] = {
	[VENGINE_OP_QUERYCAP] = "querycap",
	[VENGINE_OP_G_FMT] = "g_fmt",
	[VENGINE_OP_S_FMT] = "s_fmt",
	[VENGINE_OP_REQBUFS] = "reqbufs",
	[VENGINE_OP_QBUF] = "qbuf",
	[VENGINE_OP_DQBUF] = "dqbuf",
	[VENGINE_OP_STREAMON] = "streamon",
	[VENGINE_OP_STREAMOFF] = "streamoff",
	[VENGINE_OP_BUFFER] = "buffer",
	[VENGINE_OP_REQUEST_ALLOC] = "request_alloc",
	[VENGINE_OP_REQUEST_QUEUE] = "request_queue",
	[VENGINE_OP_REQUEST_REINIT] = "request_reinit",
	[VENGINE_OP_SETUP_LINK] = "setup_link",
	[VENGINE_OP_SUBSCRIBE_EVENT] = "subscribe_event",
	[VENGINE_OP_UNSUBSCRIBE_EVENT] = "unsubscribe_event",
	[VENGINE_OP_DQEVENT] = "dqevent",
	[VENGINE_OP_ADD_KVA] = "add_kva",
	[VENGINE_OP_DEL_KVA] = "del_kva",
	[VENGINE_OP_S_INIT_INFO] = "s_init_info",
	[VENGINE_OP_SET_CONTROL] = "set_control",
	[VENGINE_OP_GET_CONTROL] = "get_control",
	[VENGINE_OP_ADD_FENCE] = "add_fence",
	[VENGINE_OP_DEL_FENCE] = "del_fence",
	[VENGINE_OP_ALOC_BUF] = "aloc_buf",
	[VENGINE_OP_FREE_BUF] = "free_buf",
	[VENGINE_OP_CLEAR_USER_RESOURCE] = "clear_user_resource",
	[VENGINE_OP_ACQUIRE_IOVA] = "acquire_iova",
	[VENGINE_OP_RELEASE_IOVA] = "release_iova",
};

static const char * const vengine_count_names[VENGINE_COUNTS] = {
	[VENGINE_COUNT_REQUESTS] = "requests",
	[VENGINE_COUNT_BUFFERS] = "buffers",
	[VENGINE_COUNT_EVENTS] = "events",
	[VENGINE_COUNT_KVA] = "kva",
	[VENGINE_COUNT_IOVA] = "iova",
	[VENGINE_COUNT_FENCES] = "fences",
	[VENGINE_COUNT_MEMORY] = "memory",
	[VENGINE_COUNT_FILES] = "files",
};

/* An operation that is going to fail, or to hang, once. */
struct vengine_fault {
	struct list_head node;
	struct kref kref;		/* the lists' and the hanging call's */
	enum vengine_op op;
	int value;			/* what the operation returns; 0: it hangs, then goes on */
	unsigned int left;		/* calls until then, this one included */
	char entity[32];		/* of calls that count; empty: all */
	struct completion released;
};

struct vengine_recorded {
	struct list_head node;
	enum vengine_op op;
	size_t size;
	u8 bytes[];
};

/* Faults */

static void vengine_fault_free(struct kref *kref)
{
	kfree(container_of(kref, struct vengine_fault, kref));
}

static void vengine_fault_put(struct vengine_fault *fault)
{
	kref_put(&fault->kref, vengine_fault_free);
}

/* Counts a call, and takes the fault that is due for it off the armed ones. */
static struct vengine_fault *vengine_due_fault(struct vengine *engine, enum vengine_op op,
					       const char *entity)
{
	struct vengine_fault *fault, *next, *due = NULL;

	list_for_each_entry_safe(fault, next, &engine->faults, node) {
		if (fault->op != op || (*fault->entity && entity && strcmp(fault->entity, entity)))
			continue;
		if (fault->left > 1) {
			fault->left--;
		} else if (!due) {
			due = fault;
			list_del_init(&fault->node);
			WRITE_ONCE(engine->num_faults, engine->num_faults - 1);
		}
	}
	return due;
}

static int vengine_wait_released(struct vengine *engine, struct vengine_fault *fault)
{
	int ret = wait_for_completion_killable(&fault->released);

	mutex_lock(&engine->test_lock);
	if (!list_empty(&fault->node)) {
		list_del_init(&fault->node);
		vengine_fault_put(fault);
	}
	mutex_unlock(&engine->test_lock);
	vengine_fault_put(fault);
	return ret;
}

/*
 * To be asked by every operation that can be made to fail: 0, or what it is to return. Hangs here
 * when told to, until released or killed.
 */
int vengine_fault(struct vengine *engine, enum vengine_op op, const char *entity)
{
	struct vengine_fault *fault;
	int value = 0;

	if (!READ_ONCE(engine->num_faults))
		return 0;
	mutex_lock(&engine->test_lock);
	fault = vengine_due_fault(engine, op, entity);
	if (fault) {
		value = fault->value;
		if (!value) {
			kref_get(&fault->kref);
			list_add_tail(&fault->node, &engine->hanging);
		}
	}
	mutex_unlock(&engine->test_lock);
	if (fault && !value)
		return vengine_wait_released(engine, fault);
	if (fault)
		vengine_fault_put(fault);
	return value;
}

static void vengine_drop_faults(struct vengine *engine, struct list_head *faults)
{
	struct vengine_fault *fault, *next;

	list_for_each_entry_safe(fault, next, faults, node) {
		list_del_init(&fault->node);
		complete_all(&fault->released);
		vengine_fault_put(fault);
	}
}

static void vengine_clear_faults(struct vengine *engine)
{
	mutex_lock(&engine->test_lock);
	vengine_drop_faults(engine, &engine->faults);
	vengine_drop_faults(engine, &engine->hanging);
	WRITE_ONCE(engine->num_faults, 0);
	mutex_unlock(&engine->test_lock);
	vengine_release_held(engine);
}

/*
 * REINIT is not a driver's to refuse; a request in access refuses it with EBUSY. The access lasts
 * until another request is held, a node stops or the faults are cleared.
 */
void vengine_hold_request(struct vengine *engine, struct media_request *req)
{
	vengine_release_held(engine);
	media_request_get(req);
	spin_lock_irq(&req->lock);
	req->access_count++;
	spin_unlock_irq(&req->lock);
	mutex_lock(&engine->test_lock);
	engine->held = req;
	mutex_unlock(&engine->test_lock);
}

void vengine_release_held(struct vengine *engine)
{
	struct media_request *req;

	mutex_lock(&engine->test_lock);
	req = engine->held;
	engine->held = NULL;
	mutex_unlock(&engine->test_lock);
	if (!req)
		return;
	media_request_unlock_for_access(req);
	media_request_put(req);
}

/* What cannot be told to hang or to return anything else. */
static bool vengine_fault_possible(enum vengine_op op, int value)
{
	switch (op) {
	case VENGINE_OP_REQUEST_ALLOC:
		return value == -ENOMEM;
	case VENGINE_OP_REQUEST_REINIT:
		return value == -EBUSY;
	case VENGINE_OP_BUFFER:
		return value == -EIO;
	case VENGINE_OP_REQBUFS:
		return value >= -MAX_ERRNO && value <= VENGINE_MAX_BUFFERS;
	default:
		return value >= -MAX_ERRNO && value <= 0;
	}
}

static int vengine_parse_fault(struct vengine_fault *fault, const char *line)
{
	char name[32], value[16];
	int n = sscanf(line, "%31s %15s %u %31s", name, value, &fault->left, fault->entity);

	if (n < 2)
		return -EINVAL;
	if (n == 2)
		fault->left = 1;
	n = match_string(vengine_op_names, VENGINE_OPS, name);
	if (n < 0)
		return n;
	fault->op = n;
	if (strcmp(value, "hang")) {
		n = kstrtoint(value, 0, &fault->value);
		if (n)
			return n;
		if (!fault->value)
			return -EINVAL;
	}
	return fault->left && vengine_fault_possible(fault->op, fault->value) ? 0 : -EINVAL;
}

static int vengine_arm(struct vengine *engine, const char *line)
{
	struct vengine_fault *fault = kzalloc(sizeof(*fault), GFP_KERNEL);
	int ret;

	if (!fault)
		return -ENOMEM;
	ret = vengine_parse_fault(fault, line);
	if (ret) {
		kfree(fault);
		return ret;
	}
	kref_init(&fault->kref);
	init_completion(&fault->released);
	mutex_lock(&engine->test_lock);
	list_add_tail(&fault->node, &engine->faults);
	WRITE_ONCE(engine->num_faults, engine->num_faults + 1);
	mutex_unlock(&engine->test_lock);
	return 0;
}

static ssize_t vengine_fault_write(struct file *file, const char __user *user, size_t count,
				   loff_t *pos)
{
	struct vengine *engine = ((struct seq_file *)file->private_data)->private;
	char *line = memdup_user_nul(user, min_t(size_t, count, PAGE_SIZE));
	int ret = 0;

	if (IS_ERR(line))
		return PTR_ERR(line);
	if (!strcmp(strim(line), "clear"))
		vengine_clear_faults(engine);
	else
		ret = vengine_arm(engine, line);
	kfree(line);
	return ret ?: count;
}

static int vengine_fault_show(struct seq_file *s, void *unused)
{
	struct vengine *engine = s->private;
	struct vengine_fault *fault;

	mutex_lock(&engine->test_lock);
	list_for_each_entry(fault, &engine->faults, node) {
		seq_printf(s, "%s ", vengine_op_names[fault->op]);
		if (fault->value)
			seq_printf(s, "%d", fault->value);
		else
			seq_puts(s, "hang");
		seq_printf(s, " %u %s\n", fault->left, fault->entity);
	}
	list_for_each_entry(fault, &engine->hanging, node)
		seq_printf(s, "%s hangs %s\n", vengine_op_names[fault->op], fault->entity);
	mutex_unlock(&engine->test_lock);
	return 0;
}

static int vengine_fault_open(struct inode *inode, struct file *file)
{
	return single_open(file, vengine_fault_show, inode->i_private);
}

static const struct file_operations vengine_fault_fops = {
	.owner = THIS_MODULE,
	.open = vengine_fault_open,
	.read = seq_read,
	.write = vengine_fault_write,
	.llseek = seq_lseek,
	.release = single_release,
};

/* Records */

static void vengine_drop_record(struct vengine *engine)
{
	struct vengine_recorded *first = list_first_entry(&engine->records,
							  struct vengine_recorded, node);

	list_del(&first->node);
	kfree(first);
	engine->num_records--;
}

/* Keeps what a private ioctl brought; the oldest is dropped when there are too many. */
void vengine_record(struct vengine *engine, enum vengine_op op, const void *bytes, size_t size)
{
	struct vengine_recorded *record = kmalloc(struct_size(record, bytes, size), GFP_KERNEL);

	if (!record)
		return;
	record->op = op;
	record->size = size;
	memcpy(record->bytes, bytes, size);
	mutex_lock(&engine->test_lock);
	list_add_tail(&record->node, &engine->records);
	if (++engine->num_records > VENGINE_MAX_RECORDS)
		vengine_drop_record(engine);
	mutex_unlock(&engine->test_lock);
}

static void vengine_clear_records(struct vengine *engine)
{
	mutex_lock(&engine->test_lock);
	while (engine->num_records)
		vengine_drop_record(engine);
	mutex_unlock(&engine->test_lock);
}

static ssize_t vengine_record_write(struct file *file, const char __user *user, size_t count,
				    loff_t *pos)
{
	vengine_clear_records(((struct seq_file *)file->private_data)->private);
	return count;
}

static int vengine_record_show(struct seq_file *s, void *unused)
{
	struct vengine *engine = s->private;
	struct vengine_recorded *record;
	size_t n;

	mutex_lock(&engine->test_lock);
	list_for_each_entry(record, &engine->records, node) {
		seq_printf(s, "%s ", vengine_op_names[record->op]);
		for (n = 0; n < record->size; n++)
			seq_printf(s, "%02x", record->bytes[n]);
		seq_putc(s, '\n');
	}
	mutex_unlock(&engine->test_lock);
	return 0;
}

static int vengine_record_open(struct inode *inode, struct file *file)
{
	return single_open(file, vengine_record_show, inode->i_private);
}

static const struct file_operations vengine_record_fops = {
	.owner = THIS_MODULE,
	.open = vengine_record_open,
	.read = seq_read,
	.write = vengine_record_write,
	.llseek = seq_lseek,
	.release = single_release,
};

/* Buffers and counts */

static int vengine_offsets_show(struct seq_file *s, void *unused)
{
	struct vengine *engine = s->private;
	unsigned int n, index, plane;

	for (n = 0; n < VENGINE_PORTS; n++) {
		struct vengine_port_dev *port = &engine->ports[n];

		mutex_lock(&port->queue_lock);
		for (index = 0; index < port->queue.num_buffers; index++) {
			struct vb2_buffer *vb = port->queue.bufs[index];

			seq_printf(s, "%s %u", port->desc->name, index);
			for (plane = 0; plane < vb->num_planes; plane++)
				seq_printf(s, " %u", vengine_buffer_of(vb)->offset[plane]);
			seq_putc(s, '\n');
		}
		mutex_unlock(&port->queue_lock);
	}
	return 0;
}
DEFINE_SHOW_ATTRIBUTE(vengine_offsets);

bool vengine_counts_clean(void)
{
	unsigned int n;

	for (n = 0; n < VENGINE_COUNTS; n++)
		if (atomic_read(&vengine_counts[n]))
			return false;
	return true;
}

static int vengine_counts_show(struct seq_file *s, void *unused)
{
	struct vengine *engine = s->private;
	unsigned int n, dmabufs;

	dmabufs = atomic_read(&vengine_counts[VENGINE_COUNT_KVA]) +
		  atomic_read(&vengine_counts[VENGINE_COUNT_IOVA]);
	for (n = 0; n < VENGINE_PORTS; n++)
		dmabufs += vengine_port_dmabufs(&engine->ports[n]);
	for (n = 0; n < VENGINE_COUNTS; n++)
		seq_printf(s, "%s %d\n", vengine_count_names[n], atomic_read(&vengine_counts[n]));
	seq_printf(s, "dmabufs %u\n", dmabufs);
	return 0;
}
DEFINE_SHOW_ATTRIBUTE(vengine_counts);

static int vengine_init_info_show(struct seq_file *s, void *unused)
{
	struct vengine *engine = s->private;

	seq_printf(s, "%*phN\n", (int)sizeof(engine->init_info), engine->init_info);
	return 0;
}
DEFINE_SHOW_ATTRIBUTE(vengine_init_info);

void vengine_debugfs_init(struct vengine *engine)
{
	mutex_init(&engine->test_lock);
	INIT_LIST_HEAD(&engine->faults);
	INIT_LIST_HEAD(&engine->hanging);
	INIT_LIST_HEAD(&engine->records);
}

/* Once everything that the files show is there. */
void vengine_debugfs_register(struct vengine *engine)
{
	struct dentry *dir = debugfs_create_dir(dev_name(engine->dev), NULL);

	engine->debugfs = dir;
	debugfs_create_file("fault", 0600, dir, engine, &vengine_fault_fops);
	debugfs_create_file("record", 0600, dir, engine, &vengine_record_fops);
	debugfs_create_file("offsets", 0400, dir, engine, &vengine_offsets_fops);
	debugfs_create_file("counts", 0400, dir, engine, &vengine_counts_fops);
	debugfs_create_file("init_info", 0400, dir, engine, &vengine_init_info_fops);
	debugfs_create_u32("frames", 0400, dir, &engine->frames);
}

void vengine_debugfs_cleanup(struct vengine *engine)
{
	debugfs_remove(engine->debugfs);
	vengine_clear_faults(engine);
	vengine_clear_records(engine);
}
