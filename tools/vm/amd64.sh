# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash disable=SC2034,SC2154
# Guests of this processor: for tools/vm/run the machine, for tools/vm/prepare Debian's kernel.
emulator=qemu-system-x86_64
machine=(-device "isa-debug-exit,iobase=0xf4,iosize=1")
console=ttyS0
modules=(! -path "*/arm64/*")

# "RELEASE VERSION" of the installed kernel headers: modules built here must load in the guest.
kernel() {
    dpkg-query -W -f '${Depends}\n' linux-headers-amd64 2>/dev/null |
        sed -n 's/^linux-headers-\([^ ]*\) (= \([^)]*\)).*/\1 \2/p' | grep . ||
        die "linux-headers-amd64 is not installed; run tools/setup"
}

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

download() {
    apt-get -qq download "linux-image-$1=$2" 2>/dev/null
}

# The uncompressed kernel boots in half the time; the boot protocol says where it is in the image.
uncompress() {
    local setup offset length
    word() { od -An -j "$2" -N "$3" -t "u$3" "$1" | tr -d ' '; }
    setup=$(word "$1" $((0x1f1)) 1)
    offset=$(word "$1" $((0x248)) 4)
    length=$(word "$1" $((0x24c)) 4)
    dd if="$1" bs=1M iflag=skip_bytes,count_bytes status=none \
        skip=$(((setup + 1) * 512 + offset)) count="$length" |
        xz -dc --single-stream >"$2" || die "cannot uncompress $1"
}

# Puts vmlinux, lib/modules and busybox here, of $release or of what the archive has instead.
fetch() {
    if ! download "$release" "$version"; then
        # The archive keeps the newest kernel only: bring the headers up to it.
        as_root apt-get -qq update >&2
        as_root apt-get -qq install -y linux-headers-amd64 >&2
        read -r release version < <(kernel)
        download "$release" "$version" || die "cannot download linux-image-$release"
    fi
    dpkg-deb --fsys-tarfile ./*.deb | tar -x "./boot/vmlinuz-$release" "./lib/modules/$release"
    rm ./*.deb
    uncompress "boot/vmlinuz-$release" vmlinux
    rm -r boot
    cp "$(command -v busybox)" busybox
}
