// SPDX-License-Identifier: GPL-2.0-only
/*
 * The virtual engine's video nodes: formats, buffers and links.
 */
#include <linux/dma-buf.h>
#include <linux/module.h>
#include <media/v4l2-event.h>
#include <media/v4l2-ioctl.h>
#include <media/videobuf2-vmalloc.h>

#include "vengine.h"

static bool vengine_is_meta(const struct vengine_port_dev *port)
{
	return port->desc->buf_type == V4L2_BUF_TYPE_META_CAPTURE ||
	       port->desc->buf_type == V4L2_BUF_TYPE_META_OUTPUT;
}

static int vengine_port_fault(struct vengine_port_dev *port, enum vengine_op op)
{
	return vengine_fault(port->engine, op, port->desc->name);
}

/* Formats */

static const u32 *vengine_formats(const struct vengine_port_dev *port, unsigned int *count)
{
	if (V4L2_TYPE_IS_MULTIPLANAR(port->desc->buf_type)) {
		*count = ARRAY_SIZE(vengine_mplane_formats);
		return vengine_mplane_formats;
	}
	if (vengine_is_meta(port)) {
		*count = 1;
		return &port->desc->format;
	}
	*count = ARRAY_SIZE(vengine_splane_formats);
	return vengine_splane_formats;
}

static int vengine_enum_fmt(struct file *file, void *priv, struct v4l2_fmtdesc *f)
{
	struct vengine_port_dev *port = video_drvdata(file);
	unsigned int count;
	const u32 *formats = vengine_formats(port, &count);

	if (f->type != port->desc->buf_type || f->index >= count || f->mbus_code)
		return -EINVAL;
	f->pixelformat = formats[f->index];
	if (vengine_is_meta(port))
		snprintf(f->description, sizeof(f->description), "Engine %s",
			 V4L2_TYPE_IS_OUTPUT(f->type) ? "tuning" : "statistics");
	return 0;
}

/* The layout nearest to what is asked for; metadata has one. */
static struct vengine_layout vengine_adjust(const struct vengine_port_dev *port, u32 fourcc,
					    u32 width, u32 height)
{
	unsigned int count, n;
	const u32 *formats = vengine_formats(port, &count);

	if (vengine_is_meta(port))
		return (struct vengine_layout){ .fourcc = port->desc->format, .num_planes = 1,
						.sizeimage = { VENGINE_META_SIZE } };
	width = vengine_clamp_size(width, VENGINE_MIN_WIDTH, VENGINE_MAX_WIDTH);
	height = vengine_clamp_size(height, VENGINE_MIN_HEIGHT, VENGINE_MAX_HEIGHT);
	for (n = 0; n < count && formats[n] != fourcc; n++)
		;
	return vengine_layout_of(n < count ? fourcc : port->desc->format, width, height);
}

static int vengine_enum_framesizes(struct file *file, void *priv, struct v4l2_frmsizeenum *sizes)
{
	struct vengine_port_dev *port = video_drvdata(file);
	unsigned int count, n;
	const u32 *formats = vengine_formats(port, &count);

	for (n = 0; n < count && formats[n] != sizes->pixel_format; n++)
		;
	if (n == count || sizes->index || vengine_is_meta(port))
		return -EINVAL;
	sizes->type = V4L2_FRMSIZE_TYPE_STEPWISE;
	sizes->stepwise = (struct v4l2_frmsize_stepwise){
		VENGINE_MIN_WIDTH, VENGINE_MAX_WIDTH, 2, VENGINE_MIN_HEIGHT, VENGINE_MAX_HEIGHT, 2
	};
	return 0;
}

static void vengine_fill_mplane(const struct vengine_layout *layout,
				struct v4l2_pix_format_mplane *mp)
{
	u32 n;

	memset(mp, 0, sizeof(*mp));
	mp->width = layout->width;
	mp->height = layout->height;
	mp->pixelformat = layout->fourcc;
	mp->field = V4L2_FIELD_NONE;
	mp->colorspace = V4L2_COLORSPACE_SMPTE170M;
	mp->num_planes = layout->num_planes;
	for (n = 0; n < layout->num_planes; n++) {
		mp->plane_fmt[n].bytesperline = layout->bytesperline[n];
		mp->plane_fmt[n].sizeimage = layout->sizeimage[n];
	}
}

static void vengine_fill_splane(const struct vengine_layout *layout, struct v4l2_pix_format *pix)
{
	memset(pix, 0, sizeof(*pix));
	pix->width = layout->width;
	pix->height = layout->height;
	pix->pixelformat = layout->fourcc;
	pix->field = V4L2_FIELD_NONE;
	pix->colorspace = V4L2_COLORSPACE_SMPTE170M;
	pix->bytesperline = layout->bytesperline[0];
	pix->sizeimage = layout->sizeimage[0];
}

static void vengine_fill(const struct vengine_port_dev *port, const struct vengine_layout *layout,
			 struct v4l2_format *f)
{
	if (vengine_is_meta(port)) {
		f->fmt.meta.dataformat = layout->fourcc;
		f->fmt.meta.buffersize = layout->sizeimage[0];
	} else if (V4L2_TYPE_IS_MULTIPLANAR(port->desc->buf_type)) {
		vengine_fill_mplane(layout, &f->fmt.pix_mp);
	} else {
		vengine_fill_splane(layout, &f->fmt.pix);
	}
}

static int vengine_g_fmt(struct file *file, void *priv, struct v4l2_format *f)
{
	struct vengine_port_dev *port = video_drvdata(file);

	if (f->type != port->desc->buf_type)
		return -EINVAL;
	vengine_fill(port, &port->layout, f);
	return vengine_port_fault(port, VENGINE_OP_G_FMT);
}

static int vengine_adjust_fmt(struct vengine_port_dev *port, struct v4l2_format *f,
			      struct vengine_layout *layout)
{
	const struct v4l2_pix_format_mplane *mp = &f->fmt.pix_mp;
	const struct v4l2_pix_format *pix = &f->fmt.pix;

	if (f->type != port->desc->buf_type)
		return -EINVAL;
	if (V4L2_TYPE_IS_MULTIPLANAR(f->type))
		*layout = vengine_adjust(port, mp->pixelformat, mp->width, mp->height);
	else
		*layout = vengine_adjust(port, pix->pixelformat, pix->width, pix->height);
	vengine_fill(port, layout, f);
	return 0;
}

static int vengine_try_fmt(struct file *file, void *priv, struct v4l2_format *f)
{
	struct vengine_layout layout;

	return vengine_adjust_fmt(video_drvdata(file), f, &layout);
}

static int vengine_s_fmt(struct file *file, void *priv, struct v4l2_format *f)
{
	struct vengine_port_dev *port = video_drvdata(file);
	struct vengine_layout layout;
	int ret;

	ret = vengine_port_fault(port, VENGINE_OP_S_FMT);
	if (ret)
		return ret;
	ret = vengine_adjust_fmt(port, f, &layout);
	if (ret)
		return ret;
	if (vb2_is_busy(&port->queue))
		return -EBUSY;
	port->layout = layout;
	return 0;
}

static int vengine_querycap(struct file *file, void *priv, struct v4l2_capability *cap)
{
	struct vengine_port_dev *port = video_drvdata(file);

	strscpy(cap->driver, VENGINE_DRIVER, sizeof(cap->driver));
	strscpy(cap->card, port->desc->name, sizeof(cap->card));
	return vengine_port_fault(port, VENGINE_OP_QUERYCAP);
}

/* Buffers */

static int vengine_reqbufs(struct file *file, void *priv, struct v4l2_requestbuffers *p)
{
	int ret = vengine_port_fault(video_drvdata(file), VENGINE_OP_REQBUFS);

	if (ret < 0)
		return ret;
	if (ret > 0)
		p->count = min_t(u32, p->count, ret);
	return vb2_ioctl_reqbufs(file, priv, p);
}

/*
 * The offset words, which videobuf2 zeroes: reserved2 of a single-plane buffer, the third reserved
 * word of a plane. They hold from here until the buffer is done. Only a buffer that is going to be
 * prepared takes them, as only such a buffer takes new descriptors.
 */
static void vengine_take_offsets(struct vengine_port_dev *port, const struct v4l2_buffer *b)
{
	struct vb2_queue *queue = &port->queue;
	struct vengine_buffer *buf;
	struct vb2_buffer *vb;
	unsigned int n;

	vb = vb2_get_buffer(queue, b->index);
	if (b->type != queue->type || !vb)
		return;
	if (vb->state != VB2_BUF_STATE_DEQUEUED || vb->prepared)
		return;
	buf = vengine_buffer_of(vb);
	memset(buf->offset, 0, sizeof(buf->offset));
	if (b->memory != V4L2_MEMORY_DMABUF)
		return;
	if (!queue->is_multiplanar)
		buf->offset[0] = b->reserved2;
	for (n = 0; queue->is_multiplanar && n < vb->num_planes && n < b->length; n++)
		buf->offset[n] = b->m.planes[n].reserved[2];
}

static int vengine_qbuf(struct file *file, void *priv, struct v4l2_buffer *b)
{
	struct vengine_port_dev *port = video_drvdata(file);
	int ret = vengine_port_fault(port, VENGINE_OP_QBUF);

	if (ret)
		return ret;
	if (!vb2_queue_is_busy(&port->queue, file))
		vengine_take_offsets(port, b);
	return vb2_ioctl_qbuf(file, priv, b);
}

static int vengine_prepare_buf(struct file *file, void *priv, struct v4l2_buffer *b)
{
	struct vengine_port_dev *port = video_drvdata(file);

	if (!vb2_queue_is_busy(&port->queue, file))
		vengine_take_offsets(port, b);
	return vb2_ioctl_prepare_buf(file, priv, b);
}

static int vengine_dqbuf(struct file *file, void *priv, struct v4l2_buffer *b)
{
	return vengine_port_fault(video_drvdata(file), VENGINE_OP_DQBUF) ?:
	       vb2_ioctl_dqbuf(file, priv, b);
}

static int vengine_streamon(struct file *file, void *priv, enum v4l2_buf_type type)
{
	return vengine_port_fault(video_drvdata(file), VENGINE_OP_STREAMON) ?:
	       vb2_ioctl_streamon(file, priv, type);
}

static int vengine_streamoff(struct file *file, void *priv, enum v4l2_buf_type type)
{
	return vengine_port_fault(video_drvdata(file), VENGINE_OP_STREAMOFF) ?:
	       vb2_ioctl_streamoff(file, priv, type);
}

static const struct v4l2_ioctl_ops vengine_ioctl_ops = {
	.vidioc_querycap = vengine_querycap,
	.vidioc_enum_fmt_vid_cap = vengine_enum_fmt,
	.vidioc_enum_fmt_vid_out = vengine_enum_fmt,
	.vidioc_enum_fmt_meta_cap = vengine_enum_fmt,
	.vidioc_enum_fmt_meta_out = vengine_enum_fmt,
	.vidioc_g_fmt_vid_cap = vengine_g_fmt,
	.vidioc_g_fmt_vid_cap_mplane = vengine_g_fmt,
	.vidioc_g_fmt_vid_out = vengine_g_fmt,
	.vidioc_g_fmt_vid_out_mplane = vengine_g_fmt,
	.vidioc_g_fmt_meta_cap = vengine_g_fmt,
	.vidioc_g_fmt_meta_out = vengine_g_fmt,
	.vidioc_try_fmt_vid_cap = vengine_try_fmt,
	.vidioc_try_fmt_vid_cap_mplane = vengine_try_fmt,
	.vidioc_try_fmt_vid_out = vengine_try_fmt,
	.vidioc_try_fmt_vid_out_mplane = vengine_try_fmt,
	.vidioc_try_fmt_meta_cap = vengine_try_fmt,
	.vidioc_try_fmt_meta_out = vengine_try_fmt,
	.vidioc_s_fmt_vid_cap = vengine_s_fmt,
	.vidioc_s_fmt_vid_cap_mplane = vengine_s_fmt,
	.vidioc_s_fmt_vid_out = vengine_s_fmt,
	.vidioc_s_fmt_vid_out_mplane = vengine_s_fmt,
	.vidioc_s_fmt_meta_cap = vengine_s_fmt,
	.vidioc_s_fmt_meta_out = vengine_s_fmt,
	.vidioc_enum_framesizes = vengine_enum_framesizes,
	.vidioc_subscribe_event = v4l2_ctrl_subscribe_event,
	.vidioc_unsubscribe_event = v4l2_event_unsubscribe,
	.vidioc_reqbufs = vengine_reqbufs,
	.vidioc_create_bufs = vb2_ioctl_create_bufs,
	.vidioc_prepare_buf = vengine_prepare_buf,
	.vidioc_querybuf = vb2_ioctl_querybuf,
	.vidioc_expbuf = vb2_ioctl_expbuf,
	.vidioc_qbuf = vengine_qbuf,
	.vidioc_dqbuf = vengine_dqbuf,
	.vidioc_streamon = vengine_streamon,
	.vidioc_streamoff = vengine_streamoff,
};

static const struct v4l2_file_operations vengine_video_fops = {
	.owner = THIS_MODULE,
	.open = v4l2_fh_open,
	.release = vb2_fop_release,
	.poll = vb2_fop_poll,
	.mmap = vb2_fop_mmap,
	.unlocked_ioctl = video_ioctl2,
};

/* Bytes that may still be allocated for buffers. */
static u64 vengine_room(struct vb2_queue *queue)
{
	u64 used = 0;
	unsigned int index, plane;

	for (index = 0; index < VENGINE_MAX_BUFFERS; index++) {
		struct vb2_buffer *vb = vb2_get_buffer(queue, index);

		for (plane = 0; vb && plane < vb->num_planes; plane++)
			used += PAGE_ALIGN((u64)vb->planes[plane].length);
	}
	return VENGINE_MAX_ALLOCATED - min_t(u64, used, VENGINE_MAX_ALLOCATED);
}

static int vengine_queue_setup(struct vb2_queue *queue, unsigned int *num_buffers,
			       unsigned int *num_planes, unsigned int sizes[],
			       struct device *alloc_devs[])
{
	const struct vengine_port_dev *port = vb2_get_drv_priv(queue);
	unsigned int n, planes = port->layout.num_planes;
	u64 bytes = 0;

	if (*num_planes && *num_planes != planes)
		return -EINVAL;
	for (n = 0; n < planes; n++) {
		if (*num_planes && sizes[n] < port->layout.sizeimage[n])
			return -EINVAL;
		if (!*num_planes)
			sizes[n] = port->layout.sizeimage[n];
		bytes += PAGE_ALIGN((u64)sizes[n]);
	}
	*num_planes = planes;
	if (queue->memory == VB2_MEMORY_MMAP)
		*num_buffers = min_t(u64, *num_buffers, div64_u64(vengine_room(queue), bytes));
	return *num_buffers ? 0 : -ENOMEM;
}

static int vengine_buf_out_validate(struct vb2_buffer *vb)
{
	to_vb2_v4l2_buffer(vb)->field = V4L2_FIELD_NONE;
	return 0;
}

static int vengine_buf_prepare(struct vb2_buffer *vb)
{
	const struct vengine_layout *layout = &vengine_port_of(vb)->layout;
	unsigned int n;

	for (n = 0; n < vb->num_planes; n++) {
		if (!vengine_plane_address(vengine_buffer_of(vb), n))
			return -EINVAL;
		if (!V4L2_TYPE_IS_OUTPUT(vb->type))
			vb2_set_plane_payload(vb, n, layout->sizeimage[n]);
		else if (vb2_get_plane_payload(vb, n) <
			 (u64)vb->planes[n].data_offset + layout->sizeimage[n])
			return -EINVAL;
	}
	return 0;
}

static void vengine_buf_queue(struct vb2_buffer *vb)
{
	vengine_buffer_queue(vengine_buffer_of(vb));
}

/* Streaming off takes a buffer out of a queued request that never came to the engine. */
static void vengine_buf_request_complete(struct vb2_buffer *vb)
{
	vengine_buffer_withdrawn(vengine_buffer_of(vb));
}

static int vengine_start_streaming(struct vb2_queue *queue, unsigned int count)
{
	return vengine_start(vb2_get_drv_priv(queue));
}

static void vengine_stop_streaming(struct vb2_queue *queue)
{
	vengine_stop(vb2_get_drv_priv(queue));
}

static const struct vb2_ops vengine_vb2_ops = {
	.queue_setup = vengine_queue_setup,
	.buf_out_validate = vengine_buf_out_validate,
	.buf_prepare = vengine_buf_prepare,
	.buf_queue = vengine_buf_queue,
	.buf_request_complete = vengine_buf_request_complete,
	.start_streaming = vengine_start_streaming,
	.stop_streaming = vengine_stop_streaming,
	.wait_prepare = vb2_ops_wait_prepare,
	.wait_finish = vb2_ops_wait_finish,
};

/* Links */

/* The core refuses changes while a link's pipeline streams. */
static int vengine_link_setup(struct media_entity *entity, const struct media_pad *local,
			      const struct media_pad *remote, u32 flags)
{
	struct vengine_port_dev *port = video_get_drvdata(media_entity_to_video_device(entity));

	return vengine_fault(port->engine, VENGINE_OP_SETUP_LINK, NULL);
}

static const struct media_entity_operations vengine_video_entity_ops = {
	.link_setup = vengine_link_setup,
};

/* Controls */

static int vengine_set_port_control(struct v4l2_ctrl *ctrl)
{
	struct vengine_port_dev *port = container_of(ctrl->handler, struct vengine_port_dev,
						     controls);

	WRITE_ONCE(port->brightness, ctrl->val);
	return 0;
}

static const struct v4l2_ctrl_ops vengine_control_ops = {
	.s_ctrl = vengine_set_port_control,
};

static int vengine_controls_init(struct vengine_port_dev *port)
{
	if (!vengine_has_brightness(port->desc))
		return 0;
	v4l2_ctrl_handler_init(&port->controls, 1);
	v4l2_ctrl_new_std(&port->controls, &vengine_control_ops, V4L2_CID_BRIGHTNESS,
			  -VENGINE_PORT_BRIGHTNESS, VENGINE_PORT_BRIGHTNESS, 1, 0);
	port->vdev.ctrl_handler = &port->controls;
	return port->controls.error;
}

/* Set-up */

static u32 vengine_device_caps(u32 buf_type)
{
	switch (buf_type) {
	case V4L2_BUF_TYPE_VIDEO_CAPTURE:
		return V4L2_CAP_VIDEO_CAPTURE;
	case V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE:
		return V4L2_CAP_VIDEO_CAPTURE_MPLANE;
	case V4L2_BUF_TYPE_VIDEO_OUTPUT:
		return V4L2_CAP_VIDEO_OUTPUT;
	case V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE:
		return V4L2_CAP_VIDEO_OUTPUT_MPLANE;
	case V4L2_BUF_TYPE_META_CAPTURE:
		return V4L2_CAP_META_CAPTURE;
	default:
		return V4L2_CAP_META_OUTPUT;
	}
}

static int vengine_queue_init(struct vengine_port_dev *port)
{
	struct vb2_queue *queue = &port->queue;

	mutex_init(&port->queue_lock);
	queue->type = port->desc->buf_type;
	queue->io_modes = VB2_MMAP | VB2_DMABUF;
	queue->drv_priv = port;
	queue->buf_struct_size = sizeof(struct vengine_buffer);
	queue->ops = &vengine_vb2_ops;
	queue->mem_ops = &vb2_vmalloc_memops;
	queue->timestamp_flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
	/* No buffers are asked for before the start: a refusal must be STREAMON's. */
	queue->supports_requests = true;
	queue->lock = &port->queue_lock;
	queue->dev = port->engine->dev;
	return vb2_queue_init(queue);
}

/* All but registering the node. */
int vengine_port_init(struct vengine *engine, u32 index)
{
	struct vengine_port_dev *port = &engine->ports[index];
	struct video_device *vdev = &port->vdev;
	bool output = V4L2_TYPE_IS_OUTPUT(vengine_ports[index].buf_type);
	int ret;

	port->engine = engine;
	port->index = index;
	port->desc = &vengine_ports[index];
	INIT_LIST_HEAD(&port->arrived);
	INIT_LIST_HEAD(&port->active);
	port->layout = vengine_adjust(port, port->desc->format, VENGINE_DEFAULT_WIDTH,
				      VENGINE_DEFAULT_HEIGHT);
	ret = vengine_queue_init(port) ?: vengine_controls_init(port);
	if (ret)
		return ret;

	strscpy(vdev->name, port->desc->name, sizeof(vdev->name));
	vdev->v4l2_dev = &engine->v4l2_dev;
	vdev->fops = &vengine_video_fops;
	vdev->ioctl_ops = &vengine_ioctl_ops;
	vdev->release = video_device_release_empty;
	vdev->queue = &port->queue;
	vdev->lock = &port->queue_lock;
	vdev->vfl_dir = output ? VFL_DIR_TX : VFL_DIR_RX;
	vdev->device_caps = vengine_device_caps(port->desc->buf_type) | V4L2_CAP_STREAMING |
			    V4L2_CAP_IO_MC;
	vdev->entity.obj_type = MEDIA_ENTITY_TYPE_VIDEO_DEVICE;
	vdev->entity.function = MEDIA_ENT_F_IO_V4L;
	vdev->entity.name = vdev->name;
	vdev->entity.ops = &vengine_video_entity_ops;
	video_set_drvdata(vdev, port);
	port->pad.flags = output ? MEDIA_PAD_FL_SOURCE : MEDIA_PAD_FL_SINK;
	return media_entity_pads_init(&vdev->entity, 1, &port->pad);
}

/* The dma-bufs that the queue's buffers keep, each as often as it is kept; -EINTR when killed. */
int vengine_port_dmabufs(struct vengine_port_dev *port)
{
	unsigned int index, plane;
	int count = 0;

	if (mutex_lock_killable(&port->queue_lock))
		return -EINTR;
	for (index = 0; index < VENGINE_MAX_BUFFERS; index++) {
		struct vb2_buffer *vb = vb2_get_buffer(&port->queue, index);

		for (plane = 0; vb && plane < vb->num_planes; plane++)
			count += !!vb->planes[plane].dbuf;
	}
	mutex_unlock(&port->queue_lock);
	return count;
}
