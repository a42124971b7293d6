/* SPDX-License-Identifier: GPL-2.0-only OR Apache-2.0 */
/*
 * Faults of the virtual engine as a line of text tells them, for the kernel module, the in-process
 * engine and the tests of both:
 *
 *   OPERATION ERROR|hang [NTH [ENTITY]]
 *
 * The NTH call from now (1 is the next) of an operation fails once with ERROR, a negative errno in
 * decimal digits, or hangs until all faults are cleared and then goes its way. Calls on ENTITY
 * count, without it all.
 */
#ifndef VENGINE_FAULT_H
#define VENGINE_FAULT_H

#include <linux/errno.h>
#include <linux/media.h>
#include <linux/videodev2.h>
#ifdef __KERNEL__
#include <linux/string.h>
#else
#include <string.h>
#endif

#include <corvane/kvxdip.h>

#include "vengine-desc.h"

/* Operations that can be made to fail. The private ioctls stand in the order of their numbers. */
enum vengine_op {
	/* of a port */
	VENGINE_OP_QUERYCAP,
	VENGINE_OP_G_FMT,
	VENGINE_OP_S_FMT,
	VENGINE_OP_REQBUFS,
	VENGINE_OP_QBUF,
	VENGINE_OP_DQBUF,
	VENGINE_OP_STREAMON,
	VENGINE_OP_STREAMOFF,
	VENGINE_OP_BUFFER,
	/* of no entity */
	VENGINE_OP_REQUEST_ALLOC,
	VENGINE_OP_REQUEST_QUEUE,
	VENGINE_OP_REQUEST_REINIT,
	VENGINE_OP_SETUP_LINK,
	/* of the sub-device */
	VENGINE_OP_SUBSCRIBE_EVENT,
	VENGINE_OP_UNSUBSCRIBE_EVENT,
	VENGINE_OP_DQEVENT,
	VENGINE_OP_ADD_KVA,
	VENGINE_OP_DEL_KVA,
	VENGINE_OP_S_INIT_INFO,
	VENGINE_OP_SET_CONTROL,
	VENGINE_OP_GET_CONTROL,
	VENGINE_OP_ADD_FENCE,
	VENGINE_OP_DEL_FENCE,
	VENGINE_OP_ALOC_BUF,
	VENGINE_OP_FREE_BUF,
	VENGINE_OP_CLEAR_USER_RESOURCE,
	VENGINE_OP_ACQUIRE_IOVA,
	VENGINE_OP_RELEASE_IOVA,
	VENGINE_OPS
};

struct vengine_fault_word {
	const char *word;
	__u32 code;		/* of the ioctl, 0 where it is none */
};

/* In the order of enum vengine_op. */
static const struct vengine_fault_word vengine_fault_words[VENGINE_OPS] = {
	{ "querycap", VIDIOC_QUERYCAP },
	{ "g_fmt", VIDIOC_G_FMT },
	{ "s_fmt", VIDIOC_S_FMT },
	{ "reqbufs", VIDIOC_REQBUFS },
	{ "qbuf", VIDIOC_QBUF },
	{ "dqbuf", VIDIOC_DQBUF },
	{ "streamon", VIDIOC_STREAMON },
	{ "streamoff", VIDIOC_STREAMOFF },
	{ "buffer", 0 },
	{ "request_alloc", MEDIA_IOC_REQUEST_ALLOC },
	{ "request_queue", MEDIA_REQUEST_IOC_QUEUE },
	{ "request_reinit", MEDIA_REQUEST_IOC_REINIT },
	{ "setup_link", MEDIA_IOC_SETUP_LINK },
	{ "subscribe_event", VIDIOC_SUBSCRIBE_EVENT },
	{ "unsubscribe_event", VIDIOC_UNSUBSCRIBE_EVENT },
	{ "dqevent", VIDIOC_DQEVENT },
	{ "add_kva", KVXDIP_IOC_ADD_KVA },
	{ "del_kva", KVXDIP_IOC_DEL_KVA },
	{ "s_init_info", KVXDIP_IOC_S_INIT_INFO },
	{ "set_control", KVXDIP_IOC_SET_CONTROL },
	{ "get_control", KVXDIP_IOC_GET_CONTROL },
	{ "add_fence", KVXDIP_IOC_ADD_FENCE },
	{ "del_fence", KVXDIP_IOC_DEL_FENCE },
	{ "aloc_buf", KVXDIP_IOC_ALOC_BUF },
	{ "free_buf", KVXDIP_IOC_FREE_BUF },
	{ "clear_user_resource", KVXDIP_IOC_CLEAR_USER_RESOURCE },
	{ "acquire_iova", KVXDIP_IOC_ACQUIRE_IOVA },
	{ "release_iova", KVXDIP_IOC_RELEASE_IOVA },
};

/* What a line asks for. */
struct vengine_fault_order {
	enum vengine_op op;
	int value;		/* the negative errno; above 0: buffers granted; 0: hang */
	unsigned int nth;
	char entity[32];	/* empty: all */
};

/* Copies the line's next word. Its length, 0 at the end, or -EINVAL for one that is too long. */
static inline int vengine_next_word(const char **line, char *word, unsigned int size)
{
	unsigned int n = 0;

	while (**line == ' ' || **line == '\t' || **line == '\n')
		++*line;
	for (; **line && **line != ' ' && **line != '\t' && **line != '\n'; ++*line) {
		if (n + 1 == size)
			return -EINVAL;
		word[n++] = **line;
	}
	word[n] = '\0';
	return (int)n;
}

/* A decimal number of at most nine digits and nothing else. */
static inline int vengine_read_number(const char *word, int *value)
{
	int sign = *word == '-' ? -1 : 1;
	unsigned int n;

	if (sign < 0)
		word++;
	*value = 0;
	for (n = 0; word[n]; n++) {
		if (n == 9 || word[n] < '0' || word[n] > '9')
			return -EINVAL;
		*value = *value * 10 + sign * (word[n] - '0');
	}
	return n ? 0 : -EINVAL;
}

static inline int vengine_find_op(const char *word)
{
	int n;

	for (n = 0; n < VENGINE_OPS; n++)
		if (!strcmp(vengine_fault_words[n].word, word))
			return n;
	return -EINVAL;
}

/* Whether calls of an operation can concern an entity of this name. */
static inline int vengine_fault_concerns(enum vengine_op op, const char *entity)
{
	unsigned int n;

	if (op >= VENGINE_OP_SUBSCRIBE_EVENT)
		return !strcmp(entity, VENGINE_SUBDEV_ENTITY);
	for (n = 0; n < VENGINE_PORTS && op <= VENGINE_OP_BUFFER; n++)
		if (!strcmp(entity, vengine_ports[n].name))
			return 1;
	return 0;
}

/* What operations of a driver cannot be told to hang or to return is not for a fault to ask. */
static inline int vengine_fault_possible(enum vengine_op op, int value)
{
	switch (op) {
	case VENGINE_OP_REQUEST_ALLOC:
		return value == -ENOMEM;
	case VENGINE_OP_REQUEST_REINIT:
		return value == -EBUSY;
	case VENGINE_OP_BUFFER:
		return value == -EIO;
	case VENGINE_OP_REQBUFS:
		return value >= -4095 && value <= VENGINE_MAX_BUFFERS;
	default:
		return value >= -4095 && value <= 0;
	}
}

/* Reads a line. 0, or -EINVAL for one that is anything but what stands above. */
static inline int vengine_parse_fault(const char *line, struct vengine_fault_order *order)
{
	char word[32];
	int number;

	if (vengine_next_word(&line, word, sizeof(word)) <= 0)
		return -EINVAL;
	number = vengine_find_op(word);
	if (number < 0)
		return -EINVAL;
	order->op = (enum vengine_op)number;
	if (vengine_next_word(&line, word, sizeof(word)) <= 0)
		return -EINVAL;
	order->value = 0;
	if (strcmp(word, "hang") && (vengine_read_number(word, &order->value) || !order->value))
		return -EINVAL;
	number = vengine_next_word(&line, word, sizeof(word));
	order->nth = 1;
	if (number < 0)
		return -EINVAL;
	if (number > 0) {
		if (vengine_read_number(word, &number) || number < 1)
			return -EINVAL;
		order->nth = (unsigned int)number;
	}
	number = vengine_next_word(&line, order->entity, sizeof(order->entity));
	if (number < 0 || (number > 0 && !vengine_fault_concerns(order->op, order->entity)))
		return -EINVAL;
	if (vengine_next_word(&line, word, sizeof(word)))
		return -EINVAL;
	return vengine_fault_possible(order->op, order->value) ? 0 : -EINVAL;
}

#endif /* VENGINE_FAULT_H */
