/* SPDX-License-Identifier: GPL-2.0-only OR Apache-2.0 */
/*
 * The virtual engine, described once: its entities, ports, pads, links, formats and controls. The
 * kernel module and the in-process engine are both built from this table.
 *
 * Every port is a video node with one pad, linked to the engine's pad of the port's number: an
 * output node is the source of its link, a capture node the sink. Pad pairs are unique, so a link
 * is known by its pair of pad numbers alone.
 */
#ifndef VENGINE_DESC_H
#define VENGINE_DESC_H

#include <linux/media.h>
#include <linux/types.h>
#include <linux/videodev2.h>

#define VENGINE_DRIVER "vengine"
#define VENGINE_MODEL "vengine"
#define VENGINE_CORE_ENTITY "vengine-core"
#define VENGINE_SUBDEV_ENTITY "vengine-subdev"
/* The sub-device's only pad is the source of an immutable link to this pad of the engine. */
#define VENGINE_SUBDEV_CORE_PAD VENGINE_PORTS
#define VENGINE_CORE_FUNCTION MEDIA_ENT_F_PROC_VIDEO_PIXEL_FORMATTER
#define VENGINE_SUBDEV_FUNCTION MEDIA_ENT_F_PROC_VIDEO_ISP

#define VENGINE_META_FMT_STATS v4l2_fourcc('V', 'E', 'S', 'T')
#define VENGINE_META_FMT_TUNING v4l2_fourcc('V', 'E', 'T', 'U')

#define VENGINE_MIN_WIDTH 64
#define VENGINE_MIN_HEIGHT 16
#define VENGINE_MAX_WIDTH 2048
#define VENGINE_MAX_HEIGHT 2048
#define VENGINE_DEFAULT_WIDTH 320
#define VENGINE_DEFAULT_HEIGHT 240

/* What a port does with the picture. */
enum vengine_role {
	VENGINE_ROLE_INPUT,	/* output node: the picture that the captures are made from */
	VENGINE_ROLE_TUNING,	/* meta output: struct vengine_tuning */
	VENGINE_ROLE_MASK,	/* output node: its luma is averaged into every capture's */
	VENGINE_ROLE_MAIN,	/* capture: the picture */
	VENGINE_ROLE_MIRROR,	/* capture: left and right exchanged */
	VENGINE_ROLE_FLIP,	/* capture: top and bottom exchanged */
	VENGINE_ROLE_NEGATIVE,	/* capture: every component inverted */
	VENGINE_ROLE_GREY,	/* capture: without colour */
	VENGINE_ROLE_STATS,	/* meta capture: struct vengine_stats */
};

struct vengine_port {
	const char *name;	/* of the entity and the video node */
	__u32 buf_type;		/* enum v4l2_buf_type */
	__u32 format;		/* fourcc after start */
	__u32 role;		/* enum vengine_role */
	__u32 immutable;	/* the link is enabled for good */
};

#define VENGINE_PORTS 9

static const struct vengine_port vengine_ports[VENGINE_PORTS] = {
	{ "vengine-main", V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE, V4L2_PIX_FMT_NV12M,
	  VENGINE_ROLE_MAIN, 0 },
	{ "vengine-input", V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE, V4L2_PIX_FMT_NV12M,
	  VENGINE_ROLE_INPUT, 0 },
	{ "vengine-mirror", V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE, V4L2_PIX_FMT_YUV420M,
	  VENGINE_ROLE_MIRROR, 0 },
	{ "vengine-stats", V4L2_BUF_TYPE_META_CAPTURE, VENGINE_META_FMT_STATS,
	  VENGINE_ROLE_STATS, 0 },
	{ "vengine-negative", V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_YUYV,
	  VENGINE_ROLE_NEGATIVE, 0 },
	{ "vengine-tuning", V4L2_BUF_TYPE_META_OUTPUT, VENGINE_META_FMT_TUNING,
	  VENGINE_ROLE_TUNING, 1 },
	{ "vengine-flip", V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE, V4L2_PIX_FMT_NV12,
	  VENGINE_ROLE_FLIP, 0 },
	{ "vengine-grey", V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_GREY,
	  VENGINE_ROLE_GREY, 0 },
	{ "vengine-mask", V4L2_BUF_TYPE_VIDEO_OUTPUT, V4L2_PIX_FMT_GREY,
	  VENGINE_ROLE_MASK, 0 },
};

/*
 * The nodes that capture pictures have the standard control V4L2_CID_BRIGHTNESS, in steps of 1 from
 * minus to plus this and at first 0. It is added to the luma of that node's pictures, beside the
 * sub-device's control. A request's value takes effect with the request's pictures, and stays.
 */
#define VENGINE_PORT_BRIGHTNESS 64

static inline int vengine_has_brightness(const struct vengine_port *port)
{
	return port->buf_type == V4L2_BUF_TYPE_VIDEO_CAPTURE ||
	       port->buf_type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
}

struct vengine_control {
	__s32 id;
	const char *name;
	__s32 min, max, def;
};

/* Controls of the sub-device. A value out of range gives -ERANGE, an unknown id -EINVAL. */
#define VENGINE_CTRL_BRIGHTNESS 1	/* added to every capture's luma */
#define VENGINE_CTRL_USER 2		/* kept, has no effect */
#define VENGINE_CONTROLS 2
static const struct vengine_control vengine_controls[VENGINE_CONTROLS] = {
	{ VENGINE_CTRL_BRIGHTNESS, "brightness", -64, 64, 0 },
	{ VENGINE_CTRL_USER, "user", 0, 1000000, 0 },
};

/*
 * What the sub-device's private ioctls answer, beside -EFAULT and -ENOMEM. A call that fails
 * changes nothing, however many descriptors it names. What a call obtains is found and limited by
 * the open file that it came through, and given back when the file is closed.
 *
 * S_INIT_INFO: its eight bytes, read as a number, name the user for whom everything is obtained
 * through the file from then on, since the other records name none; 0 at first.
 *
 * ADD_KVA, DEL_KVA: a count of 0 or above KVXDIP_KVA_MAX gives -EINVAL, a descriptor that is closed
 * -EBADF, one that is no dma-buf -EINVAL. A dma-buf may be added several times and is deleted as
 * often, else -ENOENT. -ENOSPC when full.
 *
 * ACQUIRE_IOVA, RELEASE_IOVA: the same for their one descriptor. The coherence is part of an entry;
 * above 1, or with a count other than 1, it gives -EINVAL.
 *
 * ADD_FENCE: a count of 0 does nothing, -ENOSPC when full. The fences become readable when the next
 * request on the engine completes.
 *
 * DEL_FENCE: a descriptor that is no fence of this file's gives -EINVAL. A fence that is still
 * pending becomes readable (with an error). The caller closes its descriptors.
 *
 * ALOC_BUF, FREE_BUF: a pair of flags may be allocated several times and is freed as often, else
 * -ENOENT. -ENOMEM when full.
 *
 * CLEAR_USER_RESOURCE takes back what the calling process obtained through the file for the user
 * that it names; the instance is not looked at. It and S_INIT_INFO never fail.
 */
#define VENGINE_MAX_KVA 256
#define VENGINE_MAX_IOVA 256
#define VENGINE_MAX_FENCES 1024
#define VENGINE_MAX_MEMORY 16

/* Frame-sync events that wait for one subscriber; one more drops the oldest. */
#define VENGINE_EVENTS 32

/* A VENGINE_META_FMT_TUNING buffer. A wrong magic ends the request with buffers in error. */
#define VENGINE_TUNING_MAGIC 0x55544556u	/* "VETU" */
struct vengine_tuning {
	__u32 magic;
	__u32 serial;		/* echoed in the statistics */
	__s32 brightness;	/* added to every capture's luma, beside the control's */
	__u32 reserved[13];
};

/* A VENGINE_META_FMT_STATS buffer. */
#define VENGINE_STATS_MAGIC 0x54534556u		/* "VEST" */
struct vengine_stats {
	__u32 magic;
	__u32 frame;		/* number of the request on the engine, from 0 at load */
	__u32 ports;		/* bit n: port n took part in the request */
	__u32 tuning_serial;	/* 0 without tuning */
	__u32 input_checksum;	/* vengine_checksum() of the input, 0 without */
	__u32 reserved[11];
};

#define VENGINE_META_SIZE 64

/* Longest rows are padded to a multiple of this many bytes. */
#define VENGINE_STRIDE_ALIGN 32

#define VENGINE_MAX_BUFFERS 32

/* Bytes that a node allocates for its buffers, 32 of the largest pictures; -ENOMEM beyond. */
#define VENGINE_MAX_ALLOCATED (256u << 20)

#endif /* VENGINE_DESC_H */
