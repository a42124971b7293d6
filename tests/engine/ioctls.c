// SPDX-License-Identifier: Apache-2.0
/*
 * ioctls SECONDS [SEED]: several processes call on every node of the driver what comes to mind, at
 * once: known calls with likely records, the same with odd words in them, unknown calls and wrong
 * pointers. In between they map, poll, copy and close what they got, arm the driver's faults, and
 * have allocations fail where the kernel can be told to. Whether the kernel bears it is for its
 * log to say; this fails only when the calls did not get far enough to tell.
 */
#include <corvane/kvxdip.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/dma-buf.h>
#include <linux/media.h>
#include <linux/sync_file.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "vengine-desc.h"
#include "vengine-fault.h"

#define PROCESSES 4
#define MAX_FDS 96

enum kind { MEDIA, REQUEST, VIDEO, SUBDEV, DMABUF, FENCE, KINDS };

static struct {
	int fd;
	enum kind kind;
	unsigned int port;	/* of a video node */
} fds[MAX_FDS];
static unsigned int num_fds;

/* A record, what it points at, and a page that is not there. */
static struct page {
	uint8_t record[4096];
	uint8_t pointee[4096];
} *page;
static const struct vengine_port *port;	/* of the node that is called */
static int fail_nth = -1;

/* Shared by all processes. */
static struct {
	unsigned int calls, succeeded[64];
} *counts;

static unsigned int below(unsigned int limit)
{
	return (unsigned int)random() % limit;
}

static int chance(unsigned int percent)
{
	return below(100) < percent;
}

/* Descriptors */

static void keep(int fd, enum kind kind, unsigned int port)
{
	unsigned int n = num_fds < MAX_FDS ? num_fds : below(MAX_FDS);

	if (fd < 0)
		return;
	if (n == num_fds)
		num_fds++;
	else
		close(fds[n].fd);
	fds[n].fd = fd;
	fds[n].kind = kind;
	fds[n].port = port;
}

static void open_node(void)
{
	unsigned int port = below(VENGINE_PORTS + 2);
	enum kind kind = port < VENGINE_PORTS ? VIDEO : port == VENGINE_PORTS ? MEDIA : SUBDEV;
	char path[32];

	if (kind == VIDEO)
		snprintf(path, sizeof(path), "/dev/video%u", port);
	else
		strcpy(path, kind == MEDIA ? "/dev/media0" : "/dev/v4l-subdev0");
	keep(open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC), kind, port);
}

/* A descriptor's place, of a kind if there is one. */
static unsigned int pick(enum kind kind)
{
	unsigned int n = below(num_fds), tries;

	for (tries = 0; tries < num_fds && fds[n].kind != kind; tries++)
		n = (n + 1) % num_fds;
	return n;
}

static int pick_fd(enum kind kind)
{
	return fds[pick(kind)].fd;
}

static void drop(unsigned int n)
{
	close(fds[n].fd);
	fds[n] = fds[--num_fds];
}

/* Words and records */

static uint32_t odd_word(void)
{
	static const uint32_t words[] = { 0, 1, 0xffffffff, 0x7fffffff, 0x80000000, 0xfffff000,
					  4096, 255, V4L2_CTRL_FLAG_NEXT_CTRL };

	return chance(50) ? words[below(sizeof(words) / sizeof(*words))] :
	       chance(50) ? below(64) : (uint32_t)random() << 1 ^ (uint32_t)random();
}

/* Likely words of a record. */
enum word { ZERO, TYPE, FORMAT, MEMORY, COUNT, SMALL, BYTES, EXPORT_FLAGS, BRIGHTNESS, VALUE, EVENT,
	    CONTROL_EVENT, ENTITY, FENCE_FD };

static uint32_t likely_word(enum word word)
{
	const uint32_t words[] = {
		[TYPE] = port->buf_type,
		[FORMAT] = vengine_ports[below(VENGINE_PORTS)].format,
		[MEMORY] = chance(50) ? V4L2_MEMORY_MMAP : V4L2_MEMORY_DMABUF,
		[COUNT] = chance(80) ? 4 : below(40),
		[SMALL] = below(4),
		[BYTES] = below(2) | below(2) << 8,
		[EXPORT_FLAGS] = O_RDWR | O_CLOEXEC,
		[BRIGHTNESS] = V4L2_CID_BRIGHTNESS,
		[VALUE] = below(140) - 70,
		[EVENT] = chance(80) ? V4L2_EVENT_FRAME_SYNC : V4L2_EVENT_ALL,
		[CONTROL_EVENT] = V4L2_EVENT_CTRL,
		[ENTITY] = below(16) | (chance(50) ? MEDIA_ENT_ID_FLAG_NEXT : 0),
		[FENCE_FD] = (uint32_t)pick_fd(FENCE),
	};

	return words[word];
}

static void fill_format(void *record)
{
	struct v4l2_format *f = record;

	f->type = port->buf_type;
	f->fmt.pix.width = chance(95) ? 64 + below(64) : below(5000);
	f->fmt.pix.height = chance(95) ? 16 + below(64) : below(5000);
	f->fmt.pix.pixelformat = likely_word(FORMAT);
}

static void fill_create(void *record)
{
	struct v4l2_create_buffers *c = record;

	c->count = below(4);
	c->memory = chance(80) ? V4L2_MEMORY_MMAP : V4L2_MEMORY_DMABUF;
	fill_format(&c->format);
	c->format.fmt.pix.sizeimage = 1 << below(20);
}

static void fill_buffer(void *record)
{
	struct v4l2_plane *planes = (struct v4l2_plane *)page->pointee;
	int dmabuf = chance(40), mplane = V4L2_TYPE_IS_MULTIPLANAR(port->buf_type);
	struct v4l2_buffer *b = record;
	unsigned int n;

	b->index = below(chance(90) ? 4 : 40);
	b->type = port->buf_type;
	b->memory = dmabuf ? V4L2_MEMORY_DMABUF : V4L2_MEMORY_MMAP;
	b->bytesused = b->length = 1 << 16;
	if (chance(70)) {
		b->flags = V4L2_BUF_FLAG_REQUEST_FD;
		b->request_fd = pick_fd(REQUEST);
	}
	if (dmabuf)
		b->m.fd = pick_fd(DMABUF);
	if (!mplane)
		return;
	b->length = chance(95) ? 3 : below(VIDEO_MAX_PLANES + 2);
	b->m.planes = planes;
	for (n = 0; n < VIDEO_MAX_PLANES; n++) {
		memset(&planes[n], 0, sizeof(*planes));
		planes[n].bytesused = planes[n].length = 1 << 16;
		planes[n].reserved[2] = chance(90) ? 0 : odd_word();
		if (dmabuf)
			planes[n].m.fd = pick_fd(DMABUF);
	}
}

static void fill_controls(void *record)
{
	struct v4l2_ext_control *control = (struct v4l2_ext_control *)page->pointee;
	struct v4l2_ext_controls *c = record;

	memset(control, 0, sizeof(*control));
	control->id = V4L2_CID_BRIGHTNESS;
	control->value = (int)likely_word(VALUE);
	c->which = chance(70) ? V4L2_CTRL_WHICH_REQUEST_VAL : V4L2_CTRL_WHICH_CUR_VAL;
	c->count = below(3);
	c->request_fd = pick_fd(REQUEST);
	c->controls = control;
}

static void fill_link(void *record)
{
	struct media_links_enum list = { .entity = 1 + below(12),
					 .links = (void *)page->pointee };

	/* Of a node: its one link. */
	if (ioctl(pick_fd(MEDIA), MEDIA_IOC_ENUM_LINKS, &list) == 0)
		memcpy(record, page->pointee, sizeof(struct media_link_desc));
	((struct media_link_desc *)record)->flags = chance(80) ? MEDIA_LNK_FL_ENABLED : below(8);
}

static void fill_links(void *record)
{
	struct media_links_enum *list = record;

	list->entity = below(16);
	list->pads = (void *)page->pointee;
	list->links = (void *)(page->pointee + 2048);
}

static void fill_topology(void *record)
{
	struct media_v2_topology *t = record;

	t->num_entities = t->num_interfaces = t->num_pads = t->num_links = below(30);
	t->ptr_entities = t->ptr_interfaces = t->ptr_pads = t->ptr_links = (uintptr_t)page->pointee;
}

static void fill_kva(void *record)
{
	struct kvxdip_kva *kva = record;
	unsigned int n;

	kva->count = below(4);
	for (n = 0; n < 4; n++)
		kva->fd[n] = pick_fd(DMABUF);
}

static void fill_iova(void *record)
{
	struct kvxdip_iova *iova = record;

	iova->fd = pick_fd(DMABUF);
	iova->count = 1;
	iova->coherence = below(2);
}

static void fill_fences(void *record)
{
	struct kvxdip_fence *list = record;
	int32_t *list_fds = (int32_t *)page->pointee;

	list->count = below(4);
	list->fds = (uintptr_t)list_fds;
	list_fds[0] = list_fds[1] = pick_fd(FENCE);
}

static void fill_merge(void *record)
{
	struct sync_merge_data *merge = record;

	merge->fd2 = pick_fd(FENCE);
}

static const struct known {
	enum kind kind;
	unsigned int weight;
	unsigned long code;
	enum word words[4];
	void (*fill)(void *record);	/* what is no row of words */
} known[] = {
	{ VIDEO, 1, VIDIOC_QUERYCAP, { BYTES } },
	{ VIDEO, 1, VIDIOC_ENUM_FMT, { SMALL, TYPE } },
	{ VIDEO, 1, VIDIOC_ENUM_FRAMESIZES, { SMALL, FORMAT } },
	{ VIDEO, 1, VIDIOC_G_FMT, { TYPE } },
	{ VIDEO, 2, VIDIOC_S_FMT, { ZERO }, fill_format },
	{ VIDEO, 1, VIDIOC_TRY_FMT, { ZERO }, fill_format },
	{ VIDEO, 6, VIDIOC_REQBUFS, { COUNT, TYPE, MEMORY } },
	{ VIDEO, 4, VIDIOC_CREATE_BUFS, { ZERO }, fill_create },
	{ VIDEO, 1, VIDIOC_QUERYBUF, { ZERO }, fill_buffer },
	{ VIDEO, 8, VIDIOC_EXPBUF, { TYPE, SMALL, SMALL, EXPORT_FLAGS } },
	{ VIDEO, 2, VIDIOC_PREPARE_BUF, { ZERO }, fill_buffer },
	{ VIDEO, 40, VIDIOC_QBUF, { ZERO }, fill_buffer },
	{ VIDEO, 20, VIDIOC_DQBUF, { ZERO }, fill_buffer },
	{ VIDEO, 15, VIDIOC_STREAMON, { TYPE } },
	{ VIDEO, 4, VIDIOC_STREAMOFF, { TYPE } },
	{ VIDEO, 1, VIDIOC_QUERYCTRL, { BRIGHTNESS, VALUE } },
	{ VIDEO, 1, VIDIOC_G_CTRL, { BRIGHTNESS, VALUE } },
	{ VIDEO, 2, VIDIOC_S_CTRL, { BRIGHTNESS, VALUE } },
	{ VIDEO, 3, VIDIOC_G_EXT_CTRLS, { ZERO }, fill_controls },
	{ VIDEO, 6, VIDIOC_S_EXT_CTRLS, { ZERO }, fill_controls },
	{ VIDEO, 1, VIDIOC_SUBSCRIBE_EVENT, { CONTROL_EVENT, BRIGHTNESS } },
	{ VIDEO, 1, VIDIOC_UNSUBSCRIBE_EVENT, { CONTROL_EVENT, BRIGHTNESS } },
	{ VIDEO, 1, VIDIOC_DQEVENT, { BYTES } },
	{ VIDEO, 1, VIDIOC_G_PRIORITY, { BYTES } },
	{ MEDIA, 1, MEDIA_IOC_DEVICE_INFO, { BYTES } },
	{ MEDIA, 1, MEDIA_IOC_ENUM_ENTITIES, { ENTITY } },
	{ MEDIA, 1, MEDIA_IOC_ENUM_LINKS, { ZERO }, fill_links },
	{ MEDIA, 10, MEDIA_IOC_SETUP_LINK, { ZERO }, fill_link },
	{ MEDIA, 1, MEDIA_IOC_G_TOPOLOGY, { ZERO }, fill_topology },
	{ MEDIA, 10, MEDIA_IOC_REQUEST_ALLOC, { BYTES } },
	{ REQUEST, 30, MEDIA_REQUEST_IOC_QUEUE, { BYTES } },
	{ REQUEST, 15, MEDIA_REQUEST_IOC_REINIT, { BYTES } },
	{ SUBDEV, 3, VIDIOC_SUBSCRIBE_EVENT, { EVENT } },
	{ SUBDEV, 1, VIDIOC_UNSUBSCRIBE_EVENT, { EVENT } },
	{ SUBDEV, 4, VIDIOC_DQEVENT, { BYTES } },
	{ SUBDEV, 4, KVXDIP_IOC_ADD_KVA, { ZERO }, fill_kva },
	{ SUBDEV, 4, KVXDIP_IOC_DEL_KVA, { ZERO }, fill_kva },
	{ SUBDEV, 4, KVXDIP_IOC_ACQUIRE_IOVA, { ZERO }, fill_iova },
	{ SUBDEV, 4, KVXDIP_IOC_RELEASE_IOVA, { ZERO }, fill_iova },
	{ SUBDEV, 1, KVXDIP_IOC_S_INIT_INFO, { BYTES } },
	{ SUBDEV, 2, KVXDIP_IOC_SET_CONTROL, { SMALL, VALUE } },
	{ SUBDEV, 1, KVXDIP_IOC_GET_CONTROL, { SMALL, VALUE } },
	{ SUBDEV, 8, KVXDIP_IOC_ADD_FENCE, { ZERO }, fill_fences },
	{ SUBDEV, 4, KVXDIP_IOC_DEL_FENCE, { ZERO }, fill_fences },
	{ SUBDEV, 3, KVXDIP_IOC_ALOC_BUF, { BYTES } },
	{ SUBDEV, 3, KVXDIP_IOC_FREE_BUF, { BYTES } },
	{ SUBDEV, 1, KVXDIP_IOC_CLEAR_USER_RESOURCE, { BYTES } },
	{ DMABUF, 1, DMA_BUF_IOCTL_SYNC, { BYTES } },
	{ DMABUF, 3, DMA_BUF_IOCTL_IMPORT_SYNC_FILE, { SMALL, FENCE_FD } },
	{ DMABUF, 2, DMA_BUF_IOCTL_EXPORT_SYNC_FILE, { SMALL, FENCE_FD } },
	{ FENCE, 4, SYNC_IOC_MERGE, { ZERO }, fill_merge },
	{ FENCE, 1, SYNC_IOC_FILE_INFO, { BYTES } },
};

#define KNOWN (sizeof(known) / sizeof(*known))

static const struct known *pick_known(void)
{
	unsigned int n, at, sum = 0;

	for (n = 0; n < KNOWN; n++)
		sum += known[n].weight;
	at = below(sum);
	for (n = 0; at >= known[n].weight; n++)
		at -= known[n].weight;
	return &known[n];
}

/* What a call that succeeded gave. */
static void harvest(unsigned long code, unsigned int at)
{
	const int32_t *words = (const int32_t *)page->record;
	unsigned int n;

	switch (code) {
	case MEDIA_IOC_REQUEST_ALLOC:
		keep(words[0], REQUEST, 0);
		break;
	case VIDIOC_EXPBUF:
		keep(((struct v4l2_exportbuffer *)page->record)->fd, DMABUF, fds[at].port);
		break;
	case DMA_BUF_IOCTL_EXPORT_SYNC_FILE:
		keep(words[1], FENCE, 0);
		break;
	case SYNC_IOC_MERGE:
		keep(((struct sync_merge_data *)page->record)->fence, FENCE, 0);
		break;
	case KVXDIP_IOC_ADD_FENCE:
		for (n = 0; n < page->record[0]; n++)
			keep(((const int32_t *)page->pointee)[n], FENCE, 0);
	}
}

static void fail_allocation(const char *nth)
{
	if (fail_nth >= 0 && pwrite(fail_nth, nth, strlen(nth), 0) < 0)
		perror("fail-nth");
}

static void call_known(void)
{
	const struct known *k = pick_known();
	unsigned int at = pick(k->kind), n;
	void *argument = page->record;
	char nth[8];
	int ret;

	memset(page->record, 0, sizeof(page->record));
	port = &vengine_ports[fds[at].port % VENGINE_PORTS];
	for (n = 0; n < 4; n++)
		((uint32_t *)page->record)[n] = likely_word(k->words[n]);
	if (k->fill)
		k->fill(page->record);
	for (n = chance(15) ? 1 + below(3) : 0; n; n--)
		((uint32_t *)page->record)[below(_IOC_SIZE(k->code) / 4 + 1)] = odd_word();
	if (chance(2))
		argument = chance(50) ? (void *)(page + 1) : (uint8_t *)(page + 1) - below(64);
	snprintf(nth, sizeof(nth), "%u", 1 + below(20));
	if (chance(3))
		fail_allocation(nth);
	ret = ioctl(fds[at].fd, k->code, argument);
	fail_allocation("0");
	counts->calls++;
	if (ret < 0 || argument != page->record)
		return;
	counts->succeeded[k - known]++;
	harvest(k->code, at);
}

static void call_unknown(void)
{
	unsigned int n;

	for (n = 0; n < 128; n++)
		((uint32_t *)page->record)[n] = odd_word();
	ioctl(pick_fd(below(KINDS)), chance(50) ? _IOC(below(4), 'V', below(256), below(600)) :
	      _IOC(below(4), chance(50) ? '|' : 'b', below(256), below(64)), page->record);
}

static void map(void)
{
	unsigned int at = pick(chance(50) ? VIDEO : DMABUF);
	void *memory = mmap(NULL, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fds[at].fd,
			    (off_t)below(8) * 4096);

	if (memory != MAP_FAILED)
		munmap(memory, 8192);
}

static void write_fault(const char *line)
{
	int fd = open("/sys/kernel/debug/vengine/fault", O_WRONLY | O_CLOEXEC);

	if (fd >= 0 && write(fd, line, strlen(line)) < 0 && errno != EINVAL && errno != ENOMEM)
		perror(line);
	close(fd);
}

static void arm_fault(void)
{
	char line[64] = "clear";

	if (chance(70))
		snprintf(line, sizeof(line), "%s %s %u", vengine_fault_words[below(VENGINE_OPS)].word,
			 chance(10) ? "hang" : chance(50) ? "-5" : "-12", 1 + below(4));
	write_fault(line);
}

static void read_files(void)
{
	static const char *const names[] = { "fault", "record", "offsets", "counts", "init_info" };
	char path[64], text[4096];
	int fd;

	snprintf(path, sizeof(path), "/sys/kernel/debug/vengine/%s", names[below(5)]);
	fd = open(path, O_RDONLY | O_CLOEXEC);
	while (fd >= 0 && read(fd, text, sizeof(text)) > 0)
		;
	close(fd);
}

static void other(void)
{
	struct pollfd p = { .events = POLLIN | POLLPRI | POLLOUT };

	switch (below(8)) {
	case 0:
	case 1:
		open_node();
		break;
	case 2:
		if (num_fds > 8)
			drop(below(num_fds));
		break;
	case 3:
		p.fd = pick_fd(below(KINDS));
		poll(&p, 1, (int)below(3));
		break;
	case 4:
		map();
		break;
	case 5:
		call_unknown();
		break;
	case 6:
		read_files();
		break;
	default:
		if (chance(30))
			arm_fault();
	}
}

static void live(unsigned int seed)
{
	srandom(seed);
	page = mmap(NULL, sizeof(*page) + 4096, PROT_READ | PROT_WRITE,
		    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	mprotect(page + 1, 4096, PROT_NONE);
	fail_nth = open("/proc/thread-self/fail-nth", O_RDWR | O_CLOEXEC);
	while (num_fds < 16)
		open_node();
	for (;;)
		if (chance(90))
			call_known();
		else
			other();
}

/* A killed child's files close when no other one hangs under their lock. */
static void end_child(pid_t child)
{
	kill(child, SIGKILL);
	while (waitpid(child, NULL, WNOHANG) == 0) {
		write_fault("clear");
		usleep(1000);
	}
}

/* A hang that is armed ends with this, and a child that killed itself gets a successor. */
static void tend(pid_t *children, unsigned int seed)
{
	int n;

	write_fault("clear");
	for (n = 0; n < PROCESSES; n++) {
		/* Old ones end in the middle of whatever it is. */
		if (children[n] && (chance(5) || waitpid(children[n], NULL, WNOHANG) == children[n])) {
			end_child(children[n]);
			children[n] = 0;
		}
		if (!children[n] && (children[n] = fork()) == 0)
			live(seed + (unsigned int)n);
	}
}

int main(int argc, char **argv)
{
	time_t end = time(NULL) + (argc > 1 ? atoi(argv[1]) : 10);
	unsigned int seed = argc > 2 ? (unsigned int)atoi(argv[2]) : 1, n, reached = 0;
	pid_t children[PROCESSES] = { 0 };

	counts = mmap(NULL, sizeof(*counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
		      0);
	srandom(seed);
	while (time(NULL) < end) {
		tend(children, seed += PROCESSES);
		usleep(100000);
	}
	for (n = 0; n < PROCESSES; n++)
		kill(children[n], SIGKILL);
	while (wait(NULL) > 0)
		;
	for (n = 0; n < KNOWN; n++) {
		reached += !!counts->succeeded[n];
		if (!counts->succeeded[n])
			printf("never succeeded: %u, code %#lx\n", n, known[n].code);
	}
	printf("%u calls, %u of %u kinds succeeded\n", counts->calls, reached, (unsigned int)KNOWN);
	return reached * 3 < KNOWN * 2;
}
