/* SPDX-License-Identifier: (GPL-2.0-only WITH Linux-syscall-note) OR Apache-2.0 */
/**
 * @file
 * The pixel formats whose pictures are understood: their names, and how they lie in memory.
 *
 * Plain C, shared with the driver. One row of the table is all that a format takes: it is then
 * named, laid out, drawn by the virtual engine and turned into pictures by the tools. Nothing here
 * keeps a state; everything may be used on any thread.
 */
#ifndef CORVANE_FORMATS_H
#define CORVANE_FORMATS_H

#ifdef __KERNEL__
#include <linux/stddef.h>
#else
#include <stddef.h>
#endif

#include <linux/types.h>
#include <linux/videodev2.h>

/** What a format's three samples are. */
enum corvane_model {
	CORVANE_YUV, /**< Y, U, V */
	CORVANE_RGB, /**< R, G, B */
};

/** A plane of components: of a buffer's plane of memory, a part that has one length of line. */
struct corvane_plane {
	__u8 memory; /**< number of the buffer's plane; those that share one follow each other */
	__u8 pair;   /**< bytes of a line for two of the picture's columns; 0: no such plane */
	__u8 down;   /**< one line for 1 << down of the picture's */
};

/** Where the samples of one component are. */
struct corvane_sample {
	__u8 plane;  /**< number of the plane of components */
	__u8 first;  /**< byte of the line's first sample */
	__u8 step;   /**< bytes from a sample to the next; 0: the format has no such component */
	__u8 across; /**< one sample for 1 << across of the picture's columns */
};

/** A pixel format of eight bits a sample. */
struct corvane_format {
	__u32 fourcc;
	const char *name; /**< its common name: "NV12M" for the characters "NM12" */
	const char *text; /**< as the kernel describes it */
	enum corvane_model model;
	struct corvane_plane planes[3];
	struct corvane_sample samples[3];
};

#ifdef __cplusplus
inline constexpr
#else
static const
#endif
struct corvane_format corvane_formats[] = {
	{ V4L2_PIX_FMT_NV12, "NV12", "Y/UV 4:2:0", CORVANE_YUV,
	  { { 0, 2, 0 }, { 0, 2, 1 } }, { { 0, 0, 1, 0 }, { 1, 0, 2, 1 }, { 1, 1, 2, 1 } } },
	{ V4L2_PIX_FMT_NV21, "NV21", "Y/VU 4:2:0", CORVANE_YUV,
	  { { 0, 2, 0 }, { 0, 2, 1 } }, { { 0, 0, 1, 0 }, { 1, 1, 2, 1 }, { 1, 0, 2, 1 } } },
	{ V4L2_PIX_FMT_NV16, "NV16", "Y/UV 4:2:2", CORVANE_YUV,
	  { { 0, 2, 0 }, { 0, 2, 0 } }, { { 0, 0, 1, 0 }, { 1, 0, 2, 1 }, { 1, 1, 2, 1 } } },
	{ V4L2_PIX_FMT_NV61, "NV61", "Y/VU 4:2:2", CORVANE_YUV,
	  { { 0, 2, 0 }, { 0, 2, 0 } }, { { 0, 0, 1, 0 }, { 1, 1, 2, 1 }, { 1, 0, 2, 1 } } },
	{ V4L2_PIX_FMT_NV24, "NV24", "Y/UV 4:4:4", CORVANE_YUV,
	  { { 0, 2, 0 }, { 0, 4, 0 } }, { { 0, 0, 1, 0 }, { 1, 0, 2, 0 }, { 1, 1, 2, 0 } } },
	{ V4L2_PIX_FMT_NV42, "NV42", "Y/VU 4:4:4", CORVANE_YUV,
	  { { 0, 2, 0 }, { 0, 4, 0 } }, { { 0, 0, 1, 0 }, { 1, 1, 2, 0 }, { 1, 0, 2, 0 } } },
	{ V4L2_PIX_FMT_NV12M, "NV12M", "Y/UV 4:2:0 (N-C)", CORVANE_YUV,
	  { { 0, 2, 0 }, { 1, 2, 1 } }, { { 0, 0, 1, 0 }, { 1, 0, 2, 1 }, { 1, 1, 2, 1 } } },
	{ V4L2_PIX_FMT_NV21M, "NV21M", "Y/VU 4:2:0 (N-C)", CORVANE_YUV,
	  { { 0, 2, 0 }, { 1, 2, 1 } }, { { 0, 0, 1, 0 }, { 1, 1, 2, 1 }, { 1, 0, 2, 1 } } },
	{ V4L2_PIX_FMT_NV16M, "NV16M", "Y/UV 4:2:2 (N-C)", CORVANE_YUV,
	  { { 0, 2, 0 }, { 1, 2, 0 } }, { { 0, 0, 1, 0 }, { 1, 0, 2, 1 }, { 1, 1, 2, 1 } } },
	{ V4L2_PIX_FMT_NV61M, "NV61M", "Y/VU 4:2:2 (N-C)", CORVANE_YUV,
	  { { 0, 2, 0 }, { 1, 2, 0 } }, { { 0, 0, 1, 0 }, { 1, 1, 2, 1 }, { 1, 0, 2, 1 } } },
	{ V4L2_PIX_FMT_YUV420, "YUV420", "Planar YUV 4:2:0", CORVANE_YUV,
	  { { 0, 2, 0 }, { 0, 1, 1 }, { 0, 1, 1 } },
	  { { 0, 0, 1, 0 }, { 1, 0, 1, 1 }, { 2, 0, 1, 1 } } },
	{ V4L2_PIX_FMT_YVU420, "YVU420", "Planar YVU 4:2:0", CORVANE_YUV,
	  { { 0, 2, 0 }, { 0, 1, 1 }, { 0, 1, 1 } },
	  { { 0, 0, 1, 0 }, { 2, 0, 1, 1 }, { 1, 0, 1, 1 } } },
	{ V4L2_PIX_FMT_YUV422P, "YUV422P", "Planar YUV 4:2:2", CORVANE_YUV,
	  { { 0, 2, 0 }, { 0, 1, 0 }, { 0, 1, 0 } },
	  { { 0, 0, 1, 0 }, { 1, 0, 1, 1 }, { 2, 0, 1, 1 } } },
	{ V4L2_PIX_FMT_YUV420M, "YUV420M", "Planar YUV 4:2:0 (N-C)", CORVANE_YUV,
	  { { 0, 2, 0 }, { 1, 1, 1 }, { 2, 1, 1 } },
	  { { 0, 0, 1, 0 }, { 1, 0, 1, 1 }, { 2, 0, 1, 1 } } },
	{ V4L2_PIX_FMT_YVU420M, "YVU420M", "Planar YVU 4:2:0 (N-C)", CORVANE_YUV,
	  { { 0, 2, 0 }, { 1, 1, 1 }, { 2, 1, 1 } },
	  { { 0, 0, 1, 0 }, { 2, 0, 1, 1 }, { 1, 0, 1, 1 } } },
	{ V4L2_PIX_FMT_YUV422M, "YUV422M", "Planar YUV 4:2:2 (N-C)", CORVANE_YUV,
	  { { 0, 2, 0 }, { 1, 1, 0 }, { 2, 1, 0 } },
	  { { 0, 0, 1, 0 }, { 1, 0, 1, 1 }, { 2, 0, 1, 1 } } },
	{ V4L2_PIX_FMT_YVU422M, "YVU422M", "Planar YVU 4:2:2 (N-C)", CORVANE_YUV,
	  { { 0, 2, 0 }, { 1, 1, 0 }, { 2, 1, 0 } },
	  { { 0, 0, 1, 0 }, { 2, 0, 1, 1 }, { 1, 0, 1, 1 } } },
	{ V4L2_PIX_FMT_YUV444M, "YUV444M", "Planar YUV 4:4:4 (N-C)", CORVANE_YUV,
	  { { 0, 2, 0 }, { 1, 2, 0 }, { 2, 2, 0 } },
	  { { 0, 0, 1, 0 }, { 1, 0, 1, 0 }, { 2, 0, 1, 0 } } },
	{ V4L2_PIX_FMT_YVU444M, "YVU444M", "Planar YVU 4:4:4 (N-C)", CORVANE_YUV,
	  { { 0, 2, 0 }, { 1, 2, 0 }, { 2, 2, 0 } },
	  { { 0, 0, 1, 0 }, { 2, 0, 1, 0 }, { 1, 0, 1, 0 } } },
	{ V4L2_PIX_FMT_YUYV, "YUYV", "YUYV 4:2:2", CORVANE_YUV,
	  { { 0, 4, 0 } }, { { 0, 0, 2, 0 }, { 0, 1, 4, 1 }, { 0, 3, 4, 1 } } },
	{ V4L2_PIX_FMT_YVYU, "YVYU", "YVYU 4:2:2", CORVANE_YUV,
	  { { 0, 4, 0 } }, { { 0, 0, 2, 0 }, { 0, 3, 4, 1 }, { 0, 1, 4, 1 } } },
	{ V4L2_PIX_FMT_UYVY, "UYVY", "UYVY 4:2:2", CORVANE_YUV,
	  { { 0, 4, 0 } }, { { 0, 1, 2, 0 }, { 0, 0, 4, 1 }, { 0, 2, 4, 1 } } },
	{ V4L2_PIX_FMT_VYUY, "VYUY", "VYUY 4:2:2", CORVANE_YUV,
	  { { 0, 4, 0 } }, { { 0, 1, 2, 0 }, { 0, 2, 4, 1 }, { 0, 0, 4, 1 } } },
	{ V4L2_PIX_FMT_GREY, "GREY", "8-bit Greyscale", CORVANE_YUV,
	  { { 0, 2, 0 } }, { { 0, 0, 1, 0 } } },
	{ V4L2_PIX_FMT_RGB24, "RGB24", "24-bit RGB 8-8-8", CORVANE_RGB,
	  { { 0, 6, 0 } }, { { 0, 0, 3, 0 }, { 0, 1, 3, 0 }, { 0, 2, 3, 0 } } },
	{ V4L2_PIX_FMT_BGR24, "BGR24", "24-bit BGR 8-8-8", CORVANE_RGB,
	  { { 0, 6, 0 } }, { { 0, 2, 3, 0 }, { 0, 1, 3, 0 }, { 0, 0, 3, 0 } } },
};

/** @return the format's row; null for a format that is not known. */
static inline const struct corvane_format *corvane_format_of(__u32 fourcc)
{
	unsigned int i;

	for (i = 0; i < sizeof(corvane_formats) / sizeof(corvane_formats[0]); i++)
		if (corvane_formats[i].fourcc == fourcc)
			return &corvane_formats[i];
	return NULL; /* NOLINT(modernize-use-nullptr): C as well */
}

/** @return visible bytes in a line of a plane of components; 0 where there is no such plane. */
static inline __u32 corvane_line_bytes(const struct corvane_plane *plane, __u32 width)
{
	return (width * plane->pair + 1) / 2;
}

/** @return lines of a plane of components. */
static inline __u32 corvane_lines(const struct corvane_plane *plane, __u32 height)
{
	return (height + (1u << plane->down) - 1) >> plane->down;
}

/** A plane of components in its plane of memory. */
struct corvane_place {
	__u32 offset; /**< of its first line; bytes */
	__u32 stride; /**< bytes from a line to the next */
	__u32 end;    /**< offset behind its last line */
};

/**
 * Where the planes of components are, for the strides that a driver told.
 * @param bytesperline of each plane of memory: of its first plane of components, in proportion to
 *                     which the others have theirs.
 * @param places all zero where there is no such plane.
 */
static inline void corvane_find_places(const struct corvane_format *format,
				       const __u32 *bytesperline, __u32 height,
				       struct corvane_place places[3])
{
	unsigned int i, first = 0;

	for (i = 0; i < 3; i++) {
		const struct corvane_plane *plane = &format->planes[i];
		struct corvane_place none = { 0, 0, 0 };

		places[i] = none;
		if (!plane->pair)
			continue;
		if (plane->memory != format->planes[first].memory)
			first = i;
		if (i != first)
			places[i].offset = places[i - 1].end;
		places[i].stride = bytesperline[plane->memory] * plane->pair /
				   format->planes[first].pair;
		places[i].end = places[i].offset +
				places[i].stride * corvane_lines(plane, height);
	}
}

/** @return the sample's byte within its plane of components, for the pixel (x, y). */
static inline __u32 corvane_sample_at(const struct corvane_format *format,
				      const struct corvane_sample *sample, __u32 stride, __u32 x,
				      __u32 y)
{
	return (y >> format->planes[sample->plane].down) * stride +
	       (x >> sample->across) * sample->step + sample->first;
}

#endif /* CORVANE_FORMATS_H */
