/* SPDX-License-Identifier: GPL-2.0-only OR Apache-2.0 */
/*
 * The virtual engine's pictures: how formats lie in memory, the moving test picture, and what each
 * port makes of it. Integer arithmetic only: the kernel module, the in-process engine and whoever
 * checks their frames compile this same code.
 */
#ifndef VENGINE_PICTURE_H
#define VENGINE_PICTURE_H

#ifdef __KERNEL__
#include <linux/string.h>
#else
#include <string.h>
#endif

#include <corvane/formats.h>

#include "vengine-desc.h"

/*
 * Pixel formats that every multi-planar, and every single-plane, video node takes: some of those
 * that can be drawn.
 */
static const __u32 vengine_mplane_formats[] = {
	V4L2_PIX_FMT_NV12M, V4L2_PIX_FMT_YUV420M, V4L2_PIX_FMT_NV12,
};

static const __u32 vengine_splane_formats[] = {
	V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_GREY, V4L2_PIX_FMT_NV12,
};

struct vengine_layout {
	__u32 fourcc;
	__u32 width, height;
	__u32 num_planes;		/* buffers' planes, 0 for an unknown format */
	__u32 bytesperline[3];
	__u32 sizeimage[3];
};

/* Where the samples of one component are. */
struct vengine_samples {
	__u8 *first;
	__u32 stride;
	__u8 step, across, down;	/* as corvane_sample and corvane_plane have them */
};

/* A picture in memory: data[i] and stride[i] of each component plane. */
struct vengine_picture {
	const struct corvane_format *format;
	__u32 width, height;
	__u8 *data[3];
	__u32 stride[3];
	struct vengine_samples samples[3];	/* Y, U, V */
};

struct vengine_yuv {
	__u8 y, u, v;
};

/* What a capture is made from. */
struct vengine_source {
	const struct vengine_picture *input;	/* null: the test picture */
	const struct vengine_picture *mask;	/* null: none */
	__u32 frame;				/* number of the test picture */
	__s32 brightness;
};

static inline __u32 vengine_clamp_size(__u32 value, __u32 min, __u32 max)
{
	return (value < min ? min : value > max ? max : value) & ~1u;
}

static inline __u32 vengine_stride(__u32 bytes)
{
	return (bytes + VENGINE_STRIDE_ALIGN - 1) / VENGINE_STRIDE_ALIGN * VENGINE_STRIDE_ALIGN;
}

/* The layout of a format at a size, which must be even. */
static inline struct vengine_layout vengine_layout_of(__u32 fourcc, __u32 width, __u32 height)
{
	struct vengine_layout l = { fourcc, width, height, 0, { 0, 0, 0 }, { 0, 0, 0 } };
	const struct corvane_format *format = corvane_format_of(fourcc);
	struct corvane_place places[3];
	__u32 i;

	if (!format || format->model != CORVANE_YUV)
		return l;
	for (i = 0; i < 3 && format->planes[i].pair; i++) {
		if (format->planes[i].memory < l.num_planes)
			continue;
		l.bytesperline[l.num_planes++] =
			vengine_stride(corvane_line_bytes(&format->planes[i], width));
	}
	corvane_find_places(format, l.bytesperline, height, places);
	for (i = 0; i < 3 && format->planes[i].pair; i++)
		l.sizeimage[format->planes[i].memory] = places[i].end;
	return l;
}

/* The picture over a buffer's planes, each at least sizeimage bytes long. */
static inline struct vengine_picture vengine_map(const struct vengine_layout *l,
						 __u8 *const planes[3])
{
	struct corvane_place places[3];
	struct vengine_picture p;
	__u32 i;

	memset(&p, 0, sizeof(p));
	p.format = corvane_format_of(l->fourcc);
	p.width = l->width;
	p.height = l->height;
	if (!p.format) {	/* no picture: the bytes of its plane */
		p.data[0] = planes[0];
		return p;
	}
	corvane_find_places(p.format, l->bytesperline, l->height, places);
	for (i = 0; i < 3 && p.format->planes[i].pair; i++) {
		p.data[i] = planes[p.format->planes[i].memory] + places[i].offset;
		p.stride[i] = places[i].stride;
	}
	for (i = 0; i < 3; i++) {
		const struct corvane_sample *sample = &p.format->samples[i];

		p.samples[i].first = p.data[sample->plane] + sample->first;
		p.samples[i].stride = p.stride[sample->plane];
		p.samples[i].step = sample->step;
		p.samples[i].across = sample->across;
		p.samples[i].down = p.format->planes[sample->plane].down;
	}
	return p;
}

static inline __u8 *vengine_sample(const struct vengine_samples *s, __u32 x, __u32 y)
{
	return s->first + (y >> s->down) * s->stride + (x >> s->across) * s->step;
}

static inline struct vengine_yuv vengine_read(const struct vengine_picture *p, __u32 x, __u32 y)
{
	struct vengine_yuv c = { *vengine_sample(&p->samples[0], x, y), 128, 128 };

	if (p->samples[1].step) {
		c.u = *vengine_sample(&p->samples[1], x, y);
		c.v = *vengine_sample(&p->samples[2], x, y);
	}
	return c;
}

/* Chroma is written from the first of the columns, and of the rows, that share it. */
static inline void vengine_write(const struct vengine_picture *p, __u32 x, __u32 y,
				 struct vengine_yuv c)
{
	const struct vengine_samples *u = &p->samples[1];

	*vengine_sample(&p->samples[0], x, y) = c.y;
	if (u->step && !(x & ((1u << u->across) - 1)) && !(y & ((1u << u->down) - 1))) {
		*vengine_sample(u, x, y) = c.u;
		*vengine_sample(&p->samples[2], x, y) = c.v;
	}
}

/* A test picture: its size and number, and where its square is. */
struct vengine_test {
	__u32 width, height, frame;
	__u32 side, at_x, at_y;
};

static inline struct vengine_test vengine_test_of(__u32 width, __u32 height, __u32 frame)
{
	__u32 least = width < height ? width : height;
	struct vengine_test t = { width, height, frame, least / 4, 0, 0 };
	__u32 span_x = width - t.side, span_y = height - t.side;

	t.at_x = frame * 4 % (2 * span_x);
	t.at_y = frame * 2 % (2 * span_y);
	if (t.at_x >= span_x)
		t.at_x = 2 * span_x - 1 - t.at_x;
	if (t.at_y >= span_y)
		t.at_y = 2 * span_y - 1 - t.at_y;
	return t;
}

/*
 * The test picture: colour bars, a diagonal ramp and a bouncing square; the frame's number stands
 * in the top four rows, one bit per two columns, lowest first.
 */
static inline struct vengine_yuv vengine_test_pixel(const struct vengine_test *t, __u32 x, __u32 y)
{
	static const struct vengine_yuv bars[8] = {
		{ 235, 128, 128 }, { 210, 16, 146 }, { 170, 166, 16 }, { 145, 54, 34 },
		{ 106, 202, 222 }, { 81, 90, 240 },  { 41, 240, 110 }, { 16, 128, 128 },
	};
	struct vengine_yuv c = { 0, 128, 128 };

	if (y < 4 && x < 64) {
		c.y = t->frame >> x / 2 & 1 ? 235 : 16;
	} else if (x - t->at_x < t->side && y - t->at_y < t->side) {
		c.y = (__u8)(16 + (x - t->at_x + y - t->at_y) * 200 / (2 * t->side));
		c.u = (__u8)(t->frame * 5);
		c.v = (__u8)(255 - t->frame * 5);
	} else if (y >= t->height * 3 / 4) {
		c.y = (__u8)(x + y + t->frame);
	} else {
		c = bars[x * 8 / t->width];
	}
	return c;
}

static inline void vengine_draw_test(const struct vengine_picture *p, __u32 frame)
{
	struct vengine_test test = vengine_test_of(p->width, p->height, frame);
	__u32 x, y;

	for (y = 0; y < p->height; y++)
		for (x = 0; x < p->width; x++)
			vengine_write(p, x, y, vengine_test_pixel(&test, x, y));
}

/* FNV-1a over the luma of the visible picture, row by row from VENGINE_CHECKSUM_START. */
#define VENGINE_CHECKSUM_START 2166136261u

static inline __u32 vengine_checksum_row(__u32 hash, const struct vengine_picture *p, __u32 y)
{
	__u32 x;

	for (x = 0; x < p->width; x++)
		hash = (hash ^ vengine_read(p, x, y).y) * 16777619u;
	return hash;
}

static inline __u32 vengine_checksum(const struct vengine_picture *p)
{
	__u32 hash = VENGINE_CHECKSUM_START, y;

	for (y = 0; y < p->height; y++)
		hash = vengine_checksum_row(hash, p, y);
	return hash;
}

/* What is added to the luma for a control and a tuning buffer's brightness. */
static inline __s32 vengine_brightness(__s32 control, __s32 tuning)
{
	return control + (tuning < -255 ? -255 : tuning > 255 ? 255 : tuning);
}

/* The pixel (x, y) that a capture port of a role shows, at the size of the test picture. */
static inline struct vengine_yuv vengine_capture_pixel(const struct vengine_source *s,
						       const struct vengine_test *test, __u32 role,
						       __u32 x, __u32 y)
{
	__u32 width = test->width, height = test->height;
	struct vengine_yuv c;
	__s32 luma;

	if (role == VENGINE_ROLE_MIRROR)
		x = width - 1 - x;
	if (role == VENGINE_ROLE_FLIP)
		y = height - 1 - y;
	if (s->input)
		c = vengine_read(s->input, x * s->input->width / width,
				 y * s->input->height / height);
	else
		c = vengine_test_pixel(test, x, y);
	luma = c.y + s->brightness;
	if (s->mask)
		luma = (luma + vengine_read(s->mask, x * s->mask->width / width,
					    y * s->mask->height / height).y) / 2;
	c.y = (__u8)(luma < 0 ? 0 : luma > 255 ? 255 : luma);
	if (role == VENGINE_ROLE_NEGATIVE) {
		c.y = 255 - c.y;
		c.u = 255 - c.u;
		c.v = 255 - c.v;
	}
	if (role == VENGINE_ROLE_GREY) {
		c.u = 128;
		c.v = 128;
	}
	return c;
}

static inline void vengine_capture_row(const struct vengine_source *s, __u32 role,
				       const struct vengine_picture *out, __u32 y)
{
	struct vengine_test test = vengine_test_of(out->width, out->height, s->frame);
	__u32 x;

	for (x = 0; x < out->width; x++)
		vengine_write(out, x, y, vengine_capture_pixel(s, &test, role, x, y));
}

static inline void vengine_capture(const struct vengine_source *s, __u32 role,
				   const struct vengine_picture *out)
{
	__u32 y;

	for (y = 0; y < out->height; y++)
		vengine_capture_row(s, role, out, y);
}

/* The number of the test picture that a capture port of a role shows, at the picture's own size. */
static inline __u32 vengine_frame_number(const struct vengine_picture *p, __u32 role)
{
	__u32 bit, x, y = role == VENGINE_ROLE_FLIP ? p->height - 1 : 0, frame = 0;
	__u8 luma;

	for (bit = 0; bit < 32; bit++) {
		x = role == VENGINE_ROLE_MIRROR ? p->width - 1 - 2 * bit : 2 * bit;
		luma = vengine_read(p, x, y).y;
		if (role == VENGINE_ROLE_NEGATIVE ? luma <= 125 : luma > 125)
			frame |= 1u << bit;
	}
	return frame;
}

#endif /* VENGINE_PICTURE_H */
