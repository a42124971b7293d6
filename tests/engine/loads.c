// SPDX-License-Identifier: Apache-2.0
/*
 * loads MODULE [STEP]: loads the driver with its first allocation failing, then the second (or every
 * STEP-th from a random one), until a load needs no more of them. Such a load fails or succeeds; what it
 * leaves behind is for the kernel's checks to say. Needs a kernel that can make allocations fail.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

static void write_file(const char *path, const char *text)
{
	int fd = open(path, O_WRONLY);

	if (fd < 0 || write(fd, text, strlen(text)) < 0) {
		perror(path);
		exit(1);
	}
	close(fd);
}

/* Whether the allocation that was to fail was never made. */
static int load(int module, int nth, int *result)
{
	static const char path[] = "/proc/thread-self/fail-nth";
	char text[16] = "";
	int fd = open(path, O_RDONLY);

	snprintf(text, sizeof(text), "%d", nth);
	write_file(path, text);
	*result = syscall(SYS_finit_module, module, "", 0) < 0 ? -errno : 0;
	if (read(fd, text, sizeof(text)) < 0)
		perror(path);
	close(fd);
	write_file(path, "0");
	return atoi(text) != 0;
}

int main(int argc, char **argv)
{
	int module = open(argv[1], O_RDONLY | O_CLOEXEC), step = argc > 2 ? atoi(argv[2]) : 1;
	int nth, result, failed = 0, loads = 0, enough;

	write_file("/sys/kernel/debug/failslab/ignore-gfp-wait", "N");
	write_file("/sys/kernel/debug/failslab/verbose", "0");
	srandom((unsigned int)getpid());
	for (nth = 1 + (int)(random() % step);; nth += step) {
		enough = load(module, nth, &result);
		loads++;
		failed += result != 0;
		if (result && result != -ENOMEM && result != -ENODEV)
			printf("allocation %d: %s\n", nth, strerror(-result));
		if (!result && syscall(SYS_delete_module, "vengine", O_NONBLOCK) < 0) {
			perror("unload");
			return 1;
		}
		if (enough)
			break;
	}
	printf("%d loads, %d failed\n", loads, failed);
	return result != 0 || failed == 0;
}
