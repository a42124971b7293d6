// SPDX-License-Identifier: GPL-2.0-only
/*
 * The virtual engine: how buffers become jobs, and jobs pictures.
 *
 * A media request is one job, and so is every buffer that is queued without one. A job is ready
 * when all its buffers have come from nodes that stream; a worker thread then takes ready jobs one
 * by one, after a delay and in an order that parameters set. Nodes that stop take their buffers out
 * of jobs, which go on with what is left.
 */
#include <linux/dma-buf.h>
#include <linux/dma-fence.h>
#include <linux/kthread.h>
#include <linux/module.h>
#include <linux/random.h>
#include <linux/slab.h>

#include "vengine.h"

static unsigned int delay_us;
module_param(delay_us, uint, 0644);
MODULE_PARM_DESC(delay_us, "microseconds from a request's readiness to its completion");

static int order = 1;
module_param(order, int, 0644);
MODULE_PARM_DESC(order, "n above 1: groups of n requests complete in reverse; -n: shuffled");

/* A group that stays short goes when its first job is overdue by this much. */
#define VENGINE_PATIENCE_MS 200

/* Jobs */

static void vengine_job_init(struct vengine_job *job, unsigned int buffers)
{
	INIT_LIST_HEAD(&job->node);
	INIT_LIST_HEAD(&job->buffers);
	job->missing = buffers;
}

static void vengine_job_ready(struct vengine *engine, struct vengine_job *job)
{
	lockdep_assert_held(&engine->lock);
	job->due = ktime_add_us(ktime_get(), READ_ONCE(delay_us));
	list_add_tail(&job->node, &engine->ready);
	engine->kicked = true;
	wake_up(&engine->wake);
}

static void vengine_job_add(struct vengine_port_dev *port, struct vengine_buffer *buf)
{
	lockdep_assert_held(&port->engine->lock);
	list_add_tail(&buf->port_node, &port->active);
	list_add_tail(&buf->job_node, &buf->job->buffers);
	if (--buf->job->missing == 0)
		vengine_job_ready(port->engine, buf->job);
}

/* A buffer comes, of a node that streams or is about to. */
void vengine_buffer_queue(struct vengine_buffer *buf)
{
	struct vengine_port_dev *port = vengine_port_of(&buf->vb.vb2_buf);
	struct media_request *req = buf->vb.vb2_buf.req_obj.req;
	struct vengine *engine = port->engine;

	vengine_count(VENGINE_COUNT_BUFFERS, 1);
	spin_lock_irq(&engine->lock);
	if (req) {
		buf->job = &container_of(req, struct vengine_request, req)->job;
	} else {
		buf->job = &buf->own_job;
		vengine_job_init(buf->job, 1);
		buf->job->frame = engine->frames++;
	}
	if (port->streaming)
		vengine_job_add(port, buf);
	else
		list_add_tail(&buf->port_node, &port->arrived);
	spin_unlock_irq(&engine->lock);
}

/*
 * Controls of a request are objects of it, like buffers: they take effect when it is processed, and
 * have to be complete when its last buffer is given back.
 */
static void vengine_setup_controls(struct vengine *engine, struct media_request *req)
{
	u32 n;

	for (n = 0; n < VENGINE_PORTS; n++)
		if (vengine_has_brightness(&vengine_ports[n]))
			v4l2_ctrl_request_setup(req, &engine->ports[n].controls);
}

/* Nodes that the request has pictures for, by bit, tell what was in effect in any case. */
static void vengine_complete_controls(struct vengine *engine, struct media_request *req, u32 ports)
{
	u32 n;

	for (n = 0; n < VENGINE_PORTS; n++) {
		struct v4l2_ctrl_handler *controls = &engine->ports[n].controls, *found;

		if (!vengine_has_brightness(&vengine_ports[n]))
			continue;
		found = v4l2_ctrl_request_hdl_find(req, controls);
		if (found)
			v4l2_ctrl_request_hdl_put(found);
		if (found || ports & BIT(n))
			v4l2_ctrl_request_complete(req, controls);
	}
}

/* A buffer of a queued request will never come. */
void vengine_buffer_withdrawn(struct vengine_buffer *buf)
{
	struct vengine *engine = vengine_port_of(&buf->vb.vb2_buf)->engine;
	struct media_request *req = buf->vb.vb2_buf.req_obj.req;
	struct vengine_job *job = &container_of(req, struct vengine_request, req)->job;
	bool last;

	spin_lock_irq(&engine->lock);
	last = --job->missing == 0 && list_empty(&job->buffers);
	if (!job->missing && !last)
		vengine_job_ready(engine, job);
	spin_unlock_irq(&engine->lock);
	if (last)
		vengine_complete_controls(engine, req, 0);
}

static void vengine_buffer_done(struct vengine_buffer *buf, enum vb2_buffer_state state)
{
	vengine_count(VENGINE_COUNT_BUFFERS, -1);
	vb2_buffer_done(&buf->vb.vb2_buf, state);
}

/* A node's link cannot change from here until it stops. */
static int vengine_start_pipeline(struct vengine_port_dev *port)
{
	int ret = video_device_pipeline_start(&port->vdev, &port->pipe);

	if (ret || media_pad_remote_pad_first(&port->pad))
		return ret;
	video_device_pipeline_stop(&port->vdev);
	return -EPIPE;
}

int vengine_start(struct vengine_port_dev *port)
{
	struct vengine *engine = port->engine;
	struct vengine_buffer *buf, *next;
	LIST_HEAD(arrived);
	int ret = vengine_start_pipeline(port);

	spin_lock_irq(&engine->lock);
	list_splice_init(&port->arrived, &arrived);
	if (!ret) {
		port->streaming = true;
		port->sequence = 0;
		list_for_each_entry_safe(buf, next, &arrived, port_node) {
			list_del(&buf->port_node);
			vengine_job_add(port, buf);
		}
	}
	spin_unlock_irq(&engine->lock);
	if (!ret)
		return 0;
	list_for_each_entry_safe(buf, next, &arrived, port_node) {
		list_del(&buf->port_node);
		vengine_buffer_done(buf, VB2_BUF_STATE_QUEUED);
	}
	return ret;
}

/* Returns when no buffer of the port is in the engine's hands. */
void vengine_stop(struct vengine_port_dev *port)
{
	struct vengine *engine = port->engine;
	struct vengine_buffer *buf, *next;
	LIST_HEAD(cancelled);

	spin_lock_irq(&engine->lock);
	port->streaming = false;
	list_splice_init(&port->active, &cancelled);
	list_for_each_entry(buf, &cancelled, port_node) {
		list_del(&buf->job_node);
		buf->last = list_empty(&buf->job->buffers) && !buf->job->missing;
		if (list_empty(&buf->job->buffers))
			list_del_init(&buf->job->node);
	}
	spin_unlock_irq(&engine->lock);

	list_for_each_entry_safe(buf, next, &cancelled, port_node) {
		struct media_request *req = buf->vb.vb2_buf.req_obj.req;

		list_del(&buf->port_node);
		if (req && buf->last)
			vengine_complete_controls(engine, req, 0);
		vengine_buffer_done(buf, VB2_BUF_STATE_ERROR);
	}
	mutex_lock(&engine->run_lock);
	mutex_unlock(&engine->run_lock);
	vengine_release_held(engine);
	video_device_pipeline_stop(&port->vdev);
}

/* Processing */

/* A job in the worker's hands. */
struct vengine_run {
	u32 frame;
	struct list_head buffers;
	bool failed;
	struct vengine_picture input, mask;
	struct vengine_source source;
	struct vengine_tuning tuning;
	struct vengine_stats stats;
};

/*
 * Where a plane's picture begins, or NULL when the buffer ends before the picture does. The offset
 * word counts from the start of the buffer, an output plane's data_offset from there. All of a
 * dma-buf is mapped, also beyond the length that was queued.
 */
void *vengine_plane_address(struct vengine_buffer *buf, unsigned int plane)
{
	struct vb2_buffer *vb = &buf->vb.vb2_buf;
	u32 size = vengine_port_of(vb)->layout.sizeimage[plane];
	size_t limit = vb->planes[plane].dbuf ? vb->planes[plane].dbuf->size :
						vb2_plane_size(vb, plane);
	u64 start = (u64)buf->offset[plane] + vb->planes[plane].data_offset;
	u8 *base = vb2_plane_vaddr(vb, plane);

	return base && start + size <= limit ? base + start : NULL;
}

static bool vengine_map_picture(struct vengine_buffer *buf, struct vengine_picture *picture)
{
	const struct vengine_port_dev *port = vengine_port_of(&buf->vb.vb2_buf);
	u8 *planes[3] = { };
	unsigned int n;

	for (n = 0; n < port->layout.num_planes; n++) {
		planes[n] = vengine_plane_address(buf, n);
		if (!planes[n])
			return false;
	}
	*picture = vengine_map(&port->layout, planes);
	return true;
}

static void vengine_read_tuning(struct vengine_run *run, struct vengine_buffer *buf)
{
	void *address = vengine_plane_address(buf, 0);

	if (!address) {
		run->failed = true;
		return;
	}
	memcpy(&run->tuning, address, sizeof(run->tuning));
	run->failed |= run->tuning.magic != VENGINE_TUNING_MAGIC;
}

/* Takes from the output nodes' buffers what the captures are made from. */
static void vengine_read_buffers(struct vengine_run *run)
{
	struct vengine_buffer *buf;

	list_for_each_entry(buf, &run->buffers, job_node) {
		struct vengine_port_dev *port = vengine_port_of(&buf->vb.vb2_buf);

		run->stats.ports |= 1u << port->index;
		switch (port->desc->role) {
		case VENGINE_ROLE_INPUT:
			run->failed |= !vengine_map_picture(buf, &run->input);
			run->source.input = &run->input;
			break;
		case VENGINE_ROLE_MASK:
			run->failed |= !vengine_map_picture(buf, &run->mask);
			run->source.mask = &run->mask;
			break;
		case VENGINE_ROLE_TUNING:
			vengine_read_tuning(run, buf);
			break;
		}
	}
}

static u32 vengine_sum_up(const struct vengine_picture *picture)
{
	u32 y, hash = VENGINE_CHECKSUM_START;

	for (y = 0; y < picture->height; y++) {
		hash = vengine_checksum_row(hash, picture, y);
		cond_resched();
	}
	return hash;
}

static void vengine_write_stats(struct vengine_run *run, struct vengine_buffer *buf)
{
	void *address = vengine_plane_address(buf, 0);

	run->stats.magic = VENGINE_STATS_MAGIC;
	run->stats.frame = run->frame;
	run->stats.tuning_serial = run->tuning.serial;
	if (run->source.input)
		run->stats.input_checksum = vengine_sum_up(&run->input);
	if (address)
		memcpy(address, &run->stats, sizeof(run->stats));
	else
		run->failed = true;
}

static noinline void vengine_write_picture(struct vengine_run *run, struct vengine_buffer *buf)
{
	const struct vengine_port_dev *port = vengine_port_of(&buf->vb.vb2_buf);
	struct vengine_source source = run->source;
	struct vengine_picture out;
	u32 y;

	if (!vengine_map_picture(buf, &out)) {
		run->failed = true;
		return;
	}
	source.brightness += READ_ONCE(port->brightness);
	for (y = 0; y < out.height; y++) {
		vengine_capture_row(&source, port->desc->role, &out, y);
		cond_resched();
	}
}

static void vengine_write_buffers(struct vengine_run *run)
{
	struct vengine_buffer *buf;

	list_for_each_entry(buf, &run->buffers, job_node) {
		struct vengine_port_dev *port = vengine_port_of(&buf->vb.vb2_buf);

		if (port->desc->role == VENGINE_ROLE_STATS)
			vengine_write_stats(run, buf);
		else if (!V4L2_TYPE_IS_OUTPUT(port->desc->buf_type))
			vengine_write_picture(run, buf);
	}
}

/* Each buffer may be queued again the moment that it is done, the request when the last one is. */
static void vengine_finish(struct vengine *engine, struct vengine_run *run)
{
	struct vengine_buffer *buf, *next;
	u64 now = ktime_get_ns();

	list_for_each_entry_safe(buf, next, &run->buffers, job_node) {
		struct vengine_port_dev *port = vengine_port_of(&buf->vb.vb2_buf);
		bool failed = run->failed;

		if (vengine_fault(engine, VENGINE_OP_BUFFER, port->desc->name))
			failed = true;
		list_del(&buf->job_node);
		buf->vb.vb2_buf.timestamp = now;
		buf->vb.sequence = port->sequence++;
		buf->vb.field = V4L2_FIELD_NONE;
		vengine_buffer_done(buf, failed ? VB2_BUF_STATE_ERROR : VB2_BUF_STATE_DONE);
	}
}

/*
 * Pictures, fences and event of a run. Whoever reclaims memory may wait for a fence, so none is
 * allocated on the way to signalling them, nor a lock taken under which some is; lockdep is told.
 */
static void vengine_draw(struct vengine *engine, struct vengine_run *run)
{
	bool cookie = dma_fence_begin_signalling();

	run->source.frame = run->frame;
	vengine_read_buffers(run);
	run->source.brightness = vengine_brightness(READ_ONCE(engine->controls[0]),
						    run->tuning.brightness);
	if (!run->failed)
		vengine_write_buffers(run);
	vengine_subdev_completed(engine, run->frame);
	dma_fence_end_signalling(cookie);
}

/*
 * With hold, a fault may keep the request that completes from being reinitialised. The control
 * framework allocates under the locks that it takes, so controls stay outside the way to the
 * fences.
 */
static void vengine_process(struct vengine *engine, struct vengine_run *run, bool hold)
{
	struct vengine_buffer *first = list_first_entry(&run->buffers, struct vengine_buffer,
							job_node);
	struct media_request *req = first->vb.vb2_buf.req_obj.req;

	if (req)
		vengine_setup_controls(engine, req);
	vengine_draw(engine, run);
	if (req)
		vengine_complete_controls(engine, req, run->stats.ports);
	hold = hold && req && vengine_fault(engine, VENGINE_OP_REQUEST_REINIT, NULL);
	if (hold)
		media_request_get(req);
	vengine_finish(engine, run);
	if (hold)
		vengine_hold_request(engine, req);
}

/* The worker */

/*
 * Groups of ready jobs are taken whole, when their last one is due. Returns NULL and the time to
 * wait when none may go yet.
 */
static struct vengine_job *vengine_next_job(struct vengine *engine, ktime_t *wait)
{
	int mode = READ_ONCE(order);
	unsigned int group = max(abs(mode), 1), count = 0, pick;
	struct vengine_job *job, *first, *last = NULL;
	ktime_t due;

	list_for_each_entry(job, &engine->ready, node) {
		last = job;
		if (++count == group)
			break;
	}
	*wait = KTIME_MAX;
	if (!count)
		return NULL;
	first = list_first_entry(&engine->ready, struct vengine_job, node);
	engine->burst = min(engine->burst, count);
	if (!engine->burst) {
		due = count == group ? last->due :
				       ktime_add_ms(first->due, VENGINE_PATIENCE_MS);
		*wait = ktime_sub(due, ktime_get());
		if (*wait > 0)
			return NULL;
		engine->burst = count;
	}
	pick = mode < 0 ? get_random_u32_below(engine->burst) : engine->burst - 1;
	engine->burst--;
	list_for_each_entry(job, &engine->ready, node)
		if (!pick--)
			return job;
	return NULL;
}

/* Moves the next job's buffers into the worker's hands. */
static bool vengine_take(struct vengine *engine, struct vengine_run *run, ktime_t *wait)
{
	struct vengine_buffer *buf;
	struct vengine_job *job;

	spin_lock_irq(&engine->lock);
	engine->kicked = false;
	job = vengine_next_job(engine, wait);
	if (job) {
		list_del_init(&job->node);
		run->frame = job->frame;
		list_splice_init(&job->buffers, &run->buffers);
		list_for_each_entry(buf, &run->buffers, job_node)
			list_del(&buf->port_node);
	}
	spin_unlock_irq(&engine->lock);
	return job;
}

static int vengine_worker(void *data)
{
	struct vengine *engine = data;
	struct vengine_run run;
	ktime_t wait;
	bool taken, hold;

	while (!kthread_should_stop()) {
		memset(&run, 0, sizeof(run));
		INIT_LIST_HEAD(&run.buffers);
		/* REINIT waits for this lock, and then finds the request held. */
		hold = vengine_fault_armed(engine, VENGINE_OP_REQUEST_REINIT);
		if (hold)
			mutex_lock(&engine->mdev.req_queue_mutex);
		mutex_lock(&engine->run_lock);
		taken = vengine_take(engine, &run, &wait);
		if (taken)
			vengine_process(engine, &run, hold);
		mutex_unlock(&engine->run_lock);
		if (hold)
			mutex_unlock(&engine->mdev.req_queue_mutex);
		if (!taken)
			wait_event_interruptible_hrtimeout(engine->wake,
							   READ_ONCE(engine->kicked) ||
							   kthread_should_stop(), wait);
	}
	return 0;
}

int vengine_engine_init(struct vengine *engine)
{
	struct task_struct *worker;

	spin_lock_init(&engine->lock);
	mutex_init(&engine->run_lock);
	INIT_LIST_HEAD(&engine->ready);
	init_waitqueue_head(&engine->wake);
	worker = kthread_run(vengine_worker, engine, VENGINE_DRIVER);
	if (IS_ERR(worker))
		return PTR_ERR(worker);
	engine->worker = worker;
	return 0;
}

void vengine_engine_cleanup(struct vengine *engine)
{
	if (engine->worker)
		kthread_stop(engine->worker);
}

/* Media requests */

/* A request holds engine and module: its descriptor may outlive every other one. */
static struct media_request *vengine_req_alloc(struct media_device *mdev)
{
	struct vengine *engine = container_of(mdev, struct vengine, mdev);
	struct vengine_request *request;

	if (vengine_fault(engine, VENGINE_OP_REQUEST_ALLOC, NULL) || !try_module_get(THIS_MODULE))
		return NULL;
	request = kzalloc(sizeof(*request), GFP_KERNEL);
	if (!request) {
		module_put(THIS_MODULE);
		return NULL;
	}
	v4l2_device_get(&engine->v4l2_dev);
	vengine_count(VENGINE_COUNT_REQUESTS, 1);
	return &request->req;
}

static void vengine_req_free(struct media_request *req)
{
	struct vengine *engine = container_of(req->mdev, struct vengine, mdev);

	kfree(container_of(req, struct vengine_request, req));
	v4l2_device_put(&engine->v4l2_dev);
	vengine_count(VENGINE_COUNT_REQUESTS, -1);
	module_put(THIS_MODULE);
}

/*
 * videobuf2 binds a buffer to a request before it marks the buffer as bound, and warns when a
 * request is queued in between. It holds the queue's lock throughout.
 */
static void vengine_await_binding(struct media_request *req)
{
	struct media_request_object *obj;

	list_for_each_entry(obj, &req->objects, list) {
		struct vb2_buffer *vb = container_of(obj, struct vb2_buffer, req_obj);

		if (vb2_request_object_is_buffer(obj)) {
			mutex_lock(vb->vb2_queue->lock);
			mutex_unlock(vb->vb2_queue->lock);
		}
	}
}

static int vengine_req_validate(struct media_request *req)
{
	struct vengine *engine = container_of(req->mdev, struct vengine, mdev);
	int ret = vengine_fault(engine, VENGINE_OP_REQUEST_QUEUE, NULL);

	if (ret)
		return ret;
	vengine_await_binding(req);
	return vb2_request_validate(req);
}

static void vengine_req_queue(struct media_request *req)
{
	struct vengine *engine = container_of(req->mdev, struct vengine, mdev);
	struct vengine_job *job = &container_of(req, struct vengine_request, req)->job;

	vengine_job_init(job, vb2_request_buffer_cnt(req));
	spin_lock_irq(&engine->lock);
	job->frame = engine->frames++;
	spin_unlock_irq(&engine->lock);
	vb2_request_queue(req);
}

const struct media_device_ops vengine_media_ops = {
	.req_alloc = vengine_req_alloc,
	.req_free = vengine_req_free,
	.req_validate = vengine_req_validate,
	.req_queue = vengine_req_queue,
};
