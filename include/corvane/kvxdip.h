/* SPDX-License-Identifier: (GPL-2.0-only WITH Linux-syscall-note) OR Apache-2.0 */
/**
 * @file
 * The private ioctls of the driver's sub-device and their records.
 *
 * Plain C, shared with the driver. Records are little-endian and packed exactly as declared; the
 * kernel copies as many bytes as the size field of the request code says.
 */
#ifndef CORVANE_KVXDIP_H
#define CORVANE_KVXDIP_H

#include <linux/ioctl.h>
#include <linux/types.h>
#include <linux/videodev2.h>

/** Descriptors in one KVA list. */
#define KVXDIP_KVA_MAX 32

/** KVXDIP_IOC_ALOC_BUF, KVXDIP_IOC_FREE_BUF: the driver's working memory. */
struct kvxdip_memory {
	__u8 is_smvr;	 /**< slow-motion video recording */
	__u8 is_capture; /**< still capture */
} __attribute__((packed));

/** KVXDIP_IOC_ADD_KVA, KVXDIP_IOC_DEL_KVA: dma-bufs in the kernel's address space. */
struct kvxdip_kva {
	__u8 count;		   /**< 1 to KVXDIP_KVA_MAX */
	__s32 fd[KVXDIP_KVA_MAX];  /**< the first @c count are valid */
	__u8 reserved[256];	   /**< zero */
} __attribute__((packed));

/** KVXDIP_IOC_ACQUIRE_IOVA, KVXDIP_IOC_RELEASE_IOVA: a dma-buf in the device's address space. */
struct kvxdip_iova {
	__s32 fd;
	__u8 coherence;	     /**< 0 or 1 */
	__u8 reserved[251];  /**< zero */
	__u32 count;	     /**< entries: 1 */
} __attribute__((packed));

/** KVXDIP_IOC_ADD_FENCE, KVXDIP_IOC_DEL_FENCE. */
struct kvxdip_fence {
	__u8 count;  /**< entries of the array */
	__u64 fds;   /**< user address of an array of __s32 */
} __attribute__((packed));

/** KVXDIP_IOC_CLEAR_USER_RESOURCE: everything the driver holds for one user's instance. */
struct kvxdip_user_resource {
	__u64 user_id;
	__u64 instance;
} __attribute__((packed));

/** KVXDIP_IOC_SET_CONTROL, KVXDIP_IOC_GET_CONTROL. */
struct kvxdip_control {
	__s32 id;
	__s32 value;  /**< GET: zero on input, filled by the driver */
} __attribute__((packed));

/** KVXDIP_IOC_S_INIT_INFO: what of the caller's record reaches the driver. */
struct kvxdip_init_info {
	__u8 data[8];
} __attribute__((packed));

#define KVXDIP_IOC(direction, number, record) \
	_IOC(direction, 'V', BASE_VIDIOC_PRIVATE + (number), sizeof(struct record))

#define KVXDIP_IOC_ADD_KVA KVXDIP_IOC(_IOC_WRITE, 8, kvxdip_kva)
#define KVXDIP_IOC_DEL_KVA KVXDIP_IOC(_IOC_WRITE, 9, kvxdip_kva)
#define KVXDIP_IOC_S_INIT_INFO KVXDIP_IOC(_IOC_WRITE, 12, kvxdip_init_info)
#define KVXDIP_IOC_SET_CONTROL KVXDIP_IOC(_IOC_WRITE, 13, kvxdip_control)
#define KVXDIP_IOC_GET_CONTROL KVXDIP_IOC(_IOC_READ | _IOC_WRITE, 14, kvxdip_control)
#define KVXDIP_IOC_ADD_FENCE KVXDIP_IOC(_IOC_WRITE, 15, kvxdip_fence)
#define KVXDIP_IOC_DEL_FENCE KVXDIP_IOC(_IOC_WRITE, 16, kvxdip_fence)
#define KVXDIP_IOC_ALOC_BUF KVXDIP_IOC(_IOC_WRITE, 17, kvxdip_memory)
#define KVXDIP_IOC_FREE_BUF KVXDIP_IOC(_IOC_WRITE, 18, kvxdip_memory)
#define KVXDIP_IOC_CLEAR_USER_RESOURCE KVXDIP_IOC(_IOC_WRITE, 19, kvxdip_user_resource)
#define KVXDIP_IOC_ACQUIRE_IOVA KVXDIP_IOC(_IOC_WRITE, 20, kvxdip_iova)
#define KVXDIP_IOC_RELEASE_IOVA KVXDIP_IOC(_IOC_WRITE, 21, kvxdip_iova)

#ifdef __cplusplus
static_assert(sizeof(kvxdip_memory) == 2 && sizeof(kvxdip_kva) == 385 &&
	      sizeof(kvxdip_iova) == 260 && sizeof(kvxdip_fence) == 9 &&
	      sizeof(kvxdip_user_resource) == 16 && sizeof(kvxdip_control) == 8 &&
	      sizeof(kvxdip_init_info) == 8);
static_assert(__builtin_offsetof(kvxdip_memory, is_capture) == 1 &&
	      __builtin_offsetof(kvxdip_kva, fd) == 1 &&
	      __builtin_offsetof(kvxdip_iova, coherence) == 4 &&
	      __builtin_offsetof(kvxdip_iova, count) == 256 &&
	      __builtin_offsetof(kvxdip_fence, fds) == 1 &&
	      __builtin_offsetof(kvxdip_user_resource, instance) == 8 &&
	      __builtin_offsetof(kvxdip_control, value) == 4);
static_assert(KVXDIP_IOC_ADD_KVA == 0x418156C8 && KVXDIP_IOC_DEL_KVA == 0x418156C9 &&
	      KVXDIP_IOC_S_INIT_INFO == 0x400856CC && KVXDIP_IOC_SET_CONTROL == 0x400856CD &&
	      KVXDIP_IOC_GET_CONTROL == 0xC00856CE && KVXDIP_IOC_ADD_FENCE == 0x400956CF &&
	      KVXDIP_IOC_DEL_FENCE == 0x400956D0 && KVXDIP_IOC_ALOC_BUF == 0x400256D1 &&
	      KVXDIP_IOC_FREE_BUF == 0x400256D2 &&
	      KVXDIP_IOC_CLEAR_USER_RESOURCE == 0x401056D3 &&
	      KVXDIP_IOC_ACQUIRE_IOVA == 0x410456D4 && KVXDIP_IOC_RELEASE_IOVA == 0x410456D5);
#endif

#endif /* CORVANE_KVXDIP_H */
