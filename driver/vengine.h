/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The virtual engine's driver: what its parts share.
 *
 * Locks, outermost first: the media device's req_queue_mutex, a port's queue_lock, the media
 * device's graph_mutex, the engine's run_lock, a control handler's lock, the engine's lock.
 * sub_lock stands alone: nothing that may wait for a user or for memory is done under it.
 * fence_lock and test_lock are innermost.
 */
#ifndef VENGINE_H
#define VENGINE_H

#include <linux/atomic.h>
#include <linux/list.h>
#include <linux/mutex.h>
#include <linux/seq_file.h>
#include <linux/spinlock.h>
#include <linux/wait.h>
#include <media/media-device.h>
#include <media/media-request.h>
#include <media/v4l2-ctrls.h>
#include <media/v4l2-dev.h>
#include <media/v4l2-device.h>
#include <media/v4l2-subdev.h>
#include <media/videobuf2-v4l2.h>

#include "vengine-desc.h"
#include "vengine-fault.h"
#include "vengine-picture.h"

#define VENGINE_CORE_PADS (VENGINE_PORTS + 1)

/* What the engine holds for its users; all zero when nobody uses it. */
enum vengine_count {
	VENGINE_COUNT_REQUESTS,		/* media requests alive */
	VENGINE_COUNT_BUFFERS,		/* buffers waiting for the engine or in its hands */
	VENGINE_COUNT_EVENTS,		/* event subscriptions */
	VENGINE_COUNT_KVA,
	VENGINE_COUNT_IOVA,
	VENGINE_COUNT_FENCES,		/* alive, whoever holds them */
	VENGINE_COUNT_MEMORY,
	VENGINE_COUNT_FILES,		/* open files of the sub-device */
	VENGINE_COUNTS
};

/* A run of the engine: the buffers of one media request, or one buffer queued without. */
struct vengine_job {
	struct list_head node;		/* in vengine.ready once all buffers are there */
	struct list_head buffers;	/* those that are there */
	unsigned int missing;		/* those that are not */
	u32 frame;
	ktime_t due;
};

struct vengine_buffer {
	struct vb2_v4l2_buffer vb;	/* first: videobuf2 allocates */
	u32 offset[VIDEO_MAX_PLANES];	/* of each plane in its dma-buf */
	struct vengine_job *job;
	struct list_head job_node;	/* in vengine_job.buffers */
	struct list_head port_node;	/* in vengine_port_dev.arrived or .active */
	bool last;			/* to be taken out of its request, which ends with it */
	struct vengine_job own_job;	/* of a buffer without request */
};

struct vengine_request {
	struct media_request req;
	struct vengine_job job;
};

struct vengine;

/* A video node. */
struct vengine_port_dev {
	struct vengine *engine;
	const struct vengine_port *desc;
	u32 index;
	struct video_device vdev;
	struct media_pad pad;
	struct vb2_queue queue;
	struct media_pipeline pipe;
	struct mutex queue_lock;	/* queue and everything that its ioctls change */
	struct v4l2_ctrl_handler controls;
	s32 brightness;			/* its control's value */
	struct vengine_layout layout;
	u32 sequence;
	/* Guarded by the engine's lock: */
	bool streaming;
	struct list_head arrived;	/* buffers that came while the stream is being started */
	struct list_head active;	/* buffers in jobs that the worker has not taken */
};

struct vengine {
	struct device *dev;
	struct media_device mdev;
	struct v4l2_device v4l2_dev;
	struct media_entity core;
	struct media_pad core_pads[VENGINE_CORE_PADS];
	struct vengine_port_dev ports[VENGINE_PORTS];
	unsigned int steps;		/* of the set-up that were begun */

	spinlock_t lock;		/* jobs, their lists, frames and burst */
	u32 frames;			/* accepted so far */
	struct list_head ready;
	unsigned int burst;		/* jobs at the head of ready left of the group at work */
	bool kicked;			/* ready has grown since the worker looked */
	struct mutex run_lock;		/* held while the worker has a job's buffers in its hands */
	struct task_struct *worker;
	wait_queue_head_t wake;

	struct v4l2_subdev sd;
	struct media_pad sd_pad;
	const struct v4l2_file_operations *core_fops;	/* the sub-device core's */
	struct v4l2_file_operations sd_fops;		/* the same with our ioctl */
	struct mutex sub_lock;		/* files, all they hold, and init_info */
	struct list_head files;
	spinlock_t fence_lock;		/* pending, and each fence's place in it */
	struct list_head pending;	/* fences that the next completion signals */
	s32 controls[VENGINE_CONTROLS];
	u8 init_info[8];

	struct dentry *debugfs;
	struct mutex test_lock;		/* all that follows */
	struct list_head faults;	/* armed */
	struct list_head hanging;	/* faults that a call hangs in */
	unsigned int num_faults;	/* armed; read without the lock to see that none are */
	struct media_request *held;	/* kept from being reinitialised */
	struct list_head records;
	unsigned int num_records;
};

extern atomic_t vengine_counts[VENGINE_COUNTS];

static inline void vengine_count(enum vengine_count what, int change)
{
	atomic_add(change, &vengine_counts[what]);
}

static inline struct vengine_port_dev *vengine_port_of(struct vb2_buffer *vb)
{
	return vb2_get_drv_priv(vb->vb2_queue);
}

static inline struct vengine_buffer *vengine_buffer_of(struct vb2_buffer *vb)
{
	return container_of(to_vb2_v4l2_buffer(vb), struct vengine_buffer, vb);
}

/* What calls what: main, then debugfs, video, engine, subdev and fault, never back. */

/* vengine-debugfs.c: the files that tests read and write */
void vengine_debugfs_register(struct vengine *engine);
void vengine_debugfs_cleanup(struct vengine *engine);
bool vengine_counts_clean(void);

/* vengine-video.c: the video nodes */
int vengine_port_init(struct vengine *engine, u32 index);
int vengine_port_dmabufs(struct vengine_port_dev *port);

/* vengine-engine.c: requests and the processing of buffers */
extern const struct media_device_ops vengine_media_ops;
int vengine_engine_init(struct vengine *engine);
void vengine_engine_cleanup(struct vengine *engine);
void vengine_buffer_queue(struct vengine_buffer *buf);
void vengine_buffer_withdrawn(struct vengine_buffer *buf);
int vengine_start(struct vengine_port_dev *port);
void vengine_stop(struct vengine_port_dev *port);
void *vengine_plane_address(struct vengine_buffer *buf, unsigned int plane);

/* vengine-subdev.c: the sub-device */
int vengine_subdev_init(struct vengine *engine);
int vengine_subdev_register(struct vengine *engine);
void vengine_subdev_completed(struct vengine *engine, u32 frame);

/* vengine-fault.c: faults, hangs and records */
void vengine_tests_init(struct vengine *engine);
int vengine_fault(struct vengine *engine, enum vengine_op op, const char *entity);
bool vengine_fault_armed(struct vengine *engine, enum vengine_op op);
int vengine_tell_fault(struct vengine *engine, const char *line);
void vengine_clear_faults(struct vengine *engine);
int vengine_show_faults(struct vengine *engine, struct seq_file *s);
void vengine_record(struct vengine *engine, enum vengine_op op, const void *bytes, size_t size);
void vengine_clear_records(struct vengine *engine);
int vengine_show_records(struct vengine *engine, struct seq_file *s);
void vengine_hold_request(struct vengine *engine, struct media_request *req);
void vengine_release_held(struct vengine *engine);

#endif /* VENGINE_H */
