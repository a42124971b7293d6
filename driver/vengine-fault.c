// SPDX-License-Identifier: GPL-2.0-only
/*
 * What tests do to the virtual engine and learn from it: faults, which vengine-fault.h describes,
 * and the record of private ioctls. Whatever can be made to fail asks here; nothing here asks back.
 */
#include <linux/completion.h>
#include <linux/kref.h>
#include <linux/module.h>
#include <linux/slab.h>

#include "vengine.h"

#define VENGINE_MAX_RECORDS 1024

/* An operation that is going to fail, or to hang, once. */
struct vengine_fault {
	struct list_head node;
	struct kref kref;		/* the lists' and the hanging call's */
	struct vengine_fault_order order;	/* nth: calls until then, that one included */
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
		const char *wanted = fault->order.entity;

		if (fault->order.op != op || (*wanted && entity && strcmp(wanted, entity)))
			continue;
		if (fault->order.nth > 1) {
			fault->order.nth--;
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
		value = fault->order.value;
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

void vengine_clear_faults(struct vengine *engine)
{
	mutex_lock(&engine->test_lock);
	vengine_drop_faults(engine, &engine->faults);
	vengine_drop_faults(engine, &engine->hanging);
	WRITE_ONCE(engine->num_faults, 0);
	mutex_unlock(&engine->test_lock);
	vengine_release_held(engine);
}

bool vengine_fault_armed(struct vengine *engine, enum vengine_op op)
{
	struct vengine_fault *fault;
	bool armed = false;

	if (!READ_ONCE(engine->num_faults))
		return false;
	mutex_lock(&engine->test_lock);
	list_for_each_entry(fault, &engine->faults, node)
		armed |= fault->order.op == op;
	mutex_unlock(&engine->test_lock);
	return armed;
}

/*
 * REINIT is not a driver's to refuse; a request in access refuses it with EBUSY. The access lasts
 * until another request is held, a node stops or the faults are cleared. Takes over the caller's
 * reference.
 */
void vengine_hold_request(struct vengine *engine, struct media_request *req)
{
	vengine_release_held(engine);
	if (media_request_lock_for_access(req)) {
		media_request_put(req);
		return;
	}
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

/* Arms the fault that a line tells of, or takes all away. */
int vengine_tell_fault(struct vengine *engine, const char *line)
{
	struct vengine_fault *fault;
	int ret;

	if (!strcmp(line, "clear")) {
		vengine_clear_faults(engine);
		return 0;
	}
	fault = kzalloc(sizeof(*fault), GFP_KERNEL);
	if (!fault)
		return -ENOMEM;
	ret = vengine_parse_fault(line, &fault->order);
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

int vengine_show_faults(struct vengine *engine, struct seq_file *s)
{
	struct vengine_fault *fault;

	if (mutex_lock_killable(&engine->test_lock))
		return -EINTR;
	list_for_each_entry(fault, &engine->faults, node) {
		seq_printf(s, "%s ", vengine_fault_words[fault->order.op].word);
		if (fault->order.value)
			seq_printf(s, "%d", fault->order.value);
		else
			seq_puts(s, "hang");
		seq_printf(s, " %u %s\n", fault->order.nth, fault->order.entity);
	}
	list_for_each_entry(fault, &engine->hanging, node)
		seq_printf(s, "%s hangs %s\n", vengine_fault_words[fault->order.op].word,
			   fault->order.entity);
	mutex_unlock(&engine->test_lock);
	return 0;
}

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

void vengine_clear_records(struct vengine *engine)
{
	mutex_lock(&engine->test_lock);
	while (engine->num_records)
		vengine_drop_record(engine);
	mutex_unlock(&engine->test_lock);
}

int vengine_show_records(struct vengine *engine, struct seq_file *s)
{
	struct vengine_recorded *record;
	size_t n;

	if (mutex_lock_killable(&engine->test_lock))
		return -EINTR;
	list_for_each_entry(record, &engine->records, node) {
		seq_printf(s, "%s ", vengine_fault_words[record->op].word);
		for (n = 0; n < record->size; n++)
			seq_printf(s, "%02x", record->bytes[n]);
		seq_putc(s, '\n');
	}
	mutex_unlock(&engine->test_lock);
	return 0;
}

void vengine_tests_init(struct vengine *engine)
{
	mutex_init(&engine->test_lock);
	INIT_LIST_HEAD(&engine->faults);
	INIT_LIST_HEAD(&engine->hanging);
	INIT_LIST_HEAD(&engine->records);
}
