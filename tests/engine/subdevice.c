// SPDX-License-Identifier: Apache-2.0
/*
 * What of the driver's sub-device an in-process engine does not have: records of 32-bit programs
 * (this is built as one too), real fences, memory that nobody serves, and users.
 */
#include <corvane/kvxdip.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/sync_file.h>
#include <linux/userfaultfd.h>
#include <poll.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static int failures;

static void expect(const char *what, long wanted, long got)
{
	if (wanted == got)
		return;
	fprintf(stderr, "%zu bits: %s: wanted %ld, got %ld\n", sizeof(long) * 8, what, wanted, got);
	failures++;
}

static int call(int fd, unsigned long code, void *arg)
{
	return ioctl(fd, code, arg) < 0 ? -errno : 0;
}

static int fences(int sub, unsigned long code, unsigned int count, int *fds)
{
	struct kvxdip_fence list = { (uint8_t)count, (uintptr_t)fds };

	return call(sub, code, &list);
}

static int readable(int fd, int milliseconds)
{
	struct pollfd p = { fd, POLLIN, 0 };

	return poll(&p, 1, milliseconds) > 0 && (p.revents & POLLIN);
}

/* A request-less run of the tuning node, whose link is immutable: it signals fences. */
struct tuning {
	int fd;
	void *data;
};

static int tuning_stream(struct tuning *t, unsigned long code)
{
	int type = V4L2_BUF_TYPE_META_OUTPUT;

	return call(t->fd, code, &type);
}

static void tuning_start(struct tuning *t)
{
	struct v4l2_requestbuffers request = { .count = 1, .type = V4L2_BUF_TYPE_META_OUTPUT,
					       .memory = V4L2_MEMORY_MMAP };

	t->fd = open("/dev/video5", O_RDWR);
	expect("REQBUFS", 0, call(t->fd, VIDIOC_REQBUFS, &request));
	t->data = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, t->fd, 0);
	memcpy(t->data, "VETU", 4);
	expect("STREAMON", 0, tuning_stream(t, VIDIOC_STREAMON));
}

static int tuning_run(struct tuning *t)
{
	struct v4l2_buffer b = { .type = V4L2_BUF_TYPE_META_OUTPUT, .memory = V4L2_MEMORY_MMAP,
				 .bytesused = 64 };
	int ret = call(t->fd, VIDIOC_QBUF, &b);

	return ret ? ret : call(t->fd, VIDIOC_DQBUF, &b);
}

static void test_records(int sub)
{
	struct kvxdip_control control = { 1, 5 };
	struct kvxdip_memory memory = { 1, 0 };
	struct kvxdip_kva kva = { .count = 1, .fd = { sub } };
	struct kvxdip_iova iova = { .fd = sub, .count = 1 };

	expect("SET_CONTROL", 0, call(sub, KVXDIP_IOC_SET_CONTROL, &control));
	control.value = 0;
	expect("GET_CONTROL", 0, call(sub, KVXDIP_IOC_GET_CONTROL, &control));
	expect("the control", 5, control.value);
	control.value = 0;
	expect("SET_CONTROL", 0, call(sub, KVXDIP_IOC_SET_CONTROL, &control));
	expect("ALOC_BUF", 0, call(sub, KVXDIP_IOC_ALOC_BUF, &memory));
	expect("FREE_BUF", 0, call(sub, KVXDIP_IOC_FREE_BUF, &memory));
	expect("ADD_KVA of no dma-buf", -EINVAL, call(sub, KVXDIP_IOC_ADD_KVA, &kva));
	expect("ACQUIRE_IOVA of no dma-buf", -EINVAL, call(sub, KVXDIP_IOC_ACQUIRE_IOVA, &iova));
}

static void test_fences(int sub, struct tuning *tuning)
{
	struct sync_merge_data merge = { .name = "both" };
	int fds[2] = { -1, -1 };

	expect("ADD_FENCE", 0, fences(sub, KVXDIP_IOC_ADD_FENCE, 2, fds));
	merge.fd2 = fds[1];
	expect("MERGE", 0, call(fds[0], SYNC_IOC_MERGE, &merge));
	expect("DEL_FENCE of one", 0, fences(sub, KVXDIP_IOC_DEL_FENCE, 1, &fds[1]));
	expect("the deleted fence is readable", 1, readable(fds[1], 0));
	expect("the merged one waits for the other", 0, readable(merge.fence, 50));
	expect("a run", 0, tuning_run(tuning));
	expect("the merged fence is readable", 1, readable(merge.fence, 1000));
	expect("DEL_FENCE of a signalled one", 0, fences(sub, KVXDIP_IOC_DEL_FENCE, 1, fds));
	close(fds[0]);
	close(fds[1]);
	close(merge.fence);
}

struct stuck {
	int sub;
	int *page;
	int result;
};

static void *add_fence(void *data)
{
	struct stuck *stuck = data;

	stuck->result = fences(stuck->sub, KVXDIP_IOC_ADD_FENCE, 1, stuck->page);
	return NULL;
}

/* Where nobody serves the page of a fence array, only the caller waits. */
static void test_unserved_page(int sub, struct tuning *tuning)
{
	int uffd = (int)syscall(SYS_userfaultfd, O_CLOEXEC | O_NONBLOCK);
	void *page = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	struct uffdio_api api = { .api = UFFD_API };
	struct uffdio_register range = { { (uintptr_t)page, 4096 }, UFFDIO_REGISTER_MODE_MISSING, 0 };
	struct uffdio_zeropage zero = { { (uintptr_t)page, 4096 }, 0, 0 };
	struct stuck stuck = { sub, page, 1 };
	int status;
	pthread_t thread;

	expect("UFFDIO_API", 0, call(uffd, UFFDIO_API, &api));
	expect("UFFDIO_REGISTER", 0, call(uffd, UFFDIO_REGISTER, &range));
	pthread_create(&thread, NULL, add_fence, &stuck);
	expect("the page is asked for", 1, readable(uffd, 10000));
	if (fork() == 0) {
		alarm(5);
		_exit(tuning_run(tuning) || tuning_stream(tuning, VIDIOC_STREAMOFF) ||
		      tuning_stream(tuning, VIDIOC_STREAMON));
	}
	wait(&status);
	expect("a run and STREAMOFF elsewhere", 0, status);
	expect("ADD_FENCE still waits", 1, stuck.result);
	expect("UFFDIO_ZEROPAGE", 0, call(uffd, UFFDIO_ZEROPAGE, &zero));
	pthread_join(thread, NULL);
	expect("ADD_FENCE", 0, stuck.result);
	expect("DEL_FENCE", 0, fences(sub, KVXDIP_IOC_DEL_FENCE, 1, page));
	close(*(int *)page);
	close(uffd);
	munmap(page, 4096);
}

/* CLEAR_USER_RESOURCE takes what the calling process holds for the user, and nothing else. */
static void test_users(int sub)
{
	struct kvxdip_memory first = { 1, 0 }, childs = { 1, 1 };
	struct kvxdip_user_resource user = { 7, 0 };
	uint64_t nobody = 0;

	expect("S_INIT_INFO", 0, call(sub, KVXDIP_IOC_S_INIT_INFO, &user.user_id));
	expect("ALOC_BUF", 0, call(sub, KVXDIP_IOC_ALOC_BUF, &first));
	if (fork() == 0)
		_exit(!!call(sub, KVXDIP_IOC_ALOC_BUF, &childs));
	wait(NULL);
	expect("CLEAR_USER_RESOURCE", 0, call(sub, KVXDIP_IOC_CLEAR_USER_RESOURCE, &user));
	expect("the user's memory", -ENOENT, call(sub, KVXDIP_IOC_FREE_BUF, &first));
	expect("the other process's", 0, call(sub, KVXDIP_IOC_FREE_BUF, &childs));
	expect("S_INIT_INFO", 0, call(sub, KVXDIP_IOC_S_INIT_INFO, &nobody));
}

/* What a node allocates has a limit; a plane alone too. */
static void test_allocation(void)
{
	struct v4l2_create_buffers create = { .count = 32, .memory = V4L2_MEMORY_MMAP,
					      .format.type = V4L2_BUF_TYPE_META_CAPTURE };
	int fd = open("/dev/video3", O_RDWR);

	create.format.fmt.meta.buffersize = 1u << 31;
	expect("CREATE_BUFS of 2 GiB", -ENOMEM, call(fd, VIDIOC_CREATE_BUFS, &create));
	create.count = 32;
	create.format.fmt.meta.buffersize = 100 << 20;
	expect("CREATE_BUFS of 32 times 100 MiB", 0, call(fd, VIDIOC_CREATE_BUFS, &create));
	expect("buffers granted", 2, create.count);
	close(fd);
}

int main(void)
{
	int sub = open("/dev/v4l-subdev0", O_RDWR);
	struct tuning tuning;

	tuning_start(&tuning);
	test_records(sub);
	test_fences(sub, &tuning);
	test_unserved_page(sub, &tuning);
	test_users(sub);
	test_allocation();
	return failures != 0;
}
