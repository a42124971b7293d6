// SPDX-License-Identifier: GPL-2.0-only
/*
 * The virtual engine's test side, in debugfs: faults, what it received, what it holds.
 */
#include <linux/debugfs.h>
#include <linux/module.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include "vengine.h"

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

/* Faults and records */

static struct vengine *vengine_of_file(struct file *file)
{
	return ((struct seq_file *)file->private_data)->private;
}

static ssize_t vengine_fault_write(struct file *file, const char __user *user, size_t count,
				   loff_t *pos)
{
	char *line;
	int ret;

	if (count >= PAGE_SIZE)
		return -EINVAL;
	line = memdup_user_nul(user, count);
	if (IS_ERR(line))
		return PTR_ERR(line);
	ret = strlen(line) == count ? vengine_tell_fault(vengine_of_file(file), strim(line)) :
				      -EINVAL;
	kfree(line);
	return ret ?: count;
}

static int vengine_fault_show(struct seq_file *s, void *unused)
{
	return vengine_show_faults(s->private, s);
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

static ssize_t vengine_record_write(struct file *file, const char __user *user, size_t count,
				    loff_t *pos)
{
	vengine_clear_records(vengine_of_file(file));
	return count;
}

static int vengine_record_show(struct seq_file *s, void *unused)
{
	return vengine_show_records(s->private, s);
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

		if (mutex_lock_killable(&port->queue_lock))
			return -EINTR;
		for (index = 0; index < VENGINE_MAX_BUFFERS; index++) {
			struct vb2_buffer *vb = vb2_get_buffer(&port->queue, index);

			if (!vb)
				continue;
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
	int n, kept, dmabufs;

	dmabufs = atomic_read(&vengine_counts[VENGINE_COUNT_KVA]) +
		  atomic_read(&vengine_counts[VENGINE_COUNT_IOVA]);
	for (n = 0; n < VENGINE_PORTS; n++) {
		kept = vengine_port_dmabufs(&engine->ports[n]);
		if (kept < 0)
			return kept;
		dmabufs += kept;
	}
	for (n = 0; n < VENGINE_COUNTS; n++)
		seq_printf(s, "%s %d\n", vengine_count_names[n], atomic_read(&vengine_counts[n]));
	seq_printf(s, "dmabufs %d\n", dmabufs);
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
