# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash disable=SC2034,SC2154
# Guests of this processor: for tools/vm/run the machine, for tools/vm/prepare Debian's kernel, and
# Debian's programs and libraries, which in the guest lie over this machine's. apt looks after them in a
# folder of its own, so that the machine itself needs no packages of this processor.
emulator=qemu-system-aarch64
machine=(-machine virt -cpu cortex-a72)
console=ttyAMA0
modules=(-path "*/arm64/*")
apt=$vm/arm64-apt

# What lies over this machine's files; sh and what busybox knows come from there.
packages=(busybox-static libstdc++6 libpng16-16 v4l-utils)

apt_arm64() {
    APT_CONFIG=$apt/apt.conf apt-get -qq -o Debug::NoLocking=true -o APT::Sandbox::User=root "$@" >&2
}

# "RELEASE VERSION" of the archive's kernel, as it was when it was first asked for.
kernel() {
    if [ ! -s "$apt/kernel" ]; then
        mkdir -p "$apt"/{state/lists,cache/archives}/partial
        touch "$apt/status"
        cat >"$apt/apt.conf" <<END
APT::Architecture "arm64";
APT::Architectures { "arm64"; };
Dir::State "$apt/state";
Dir::State::status "$apt/status";
Dir::Cache "$apt/cache";
END
        apt_arm64 update || die "cannot ask for packages of arm64"
        APT_CONFIG=$apt/apt.conf apt-cache show linux-headers-arm64 |
            sed -n 's/^Depends: linux-headers-\([^ ]*\) (= \([^)]*\)).*/\1 \2/p' | head -n1 >"$apt/kernel"
    fi
    cat "$apt/kernel"
}

# Puts vmlinux, lib/modules, busybox, headers (to build modules on this machine) and root here.
fetch() {
    local file program
    rm -f "$apt"/cache/archives/*.deb
    apt_arm64 install -y --download-only --no-install-recommends "${packages[@]}"
    apt_arm64 download "linux-image-$release=$version" "linux-headers-$release=$version" libpng-dev zlib1g-dev
    dpkg-deb --fsys-tarfile linux-image-*.deb | tar -x "./boot/vmlinuz-$release" "./lib/modules/$release"
    mv "boot/vmlinuz-$release" vmlinux
    dpkg-deb -x linux-headers-*.deb headers-all
    mv "headers-all/usr/src/linux-headers-$release" headers
    ln -sfn /usr/lib/linux-kbuild-6.1/scripts headers/scripts
    rm -r boot headers-all linux-*.deb
    mkdir -p root
    for file in "$apt"/cache/archives/*.deb ./*.deb; do
        dpkg-deb -x "$file" root
    done
    rm ./*.deb
    # As on this machine, where /bin and /lib are those of /usr.
    for file in bin sbin lib; do
        [ ! -d "root/$file" ] || { cp -a "root/$file/." "root/usr/$file" && rm -r "root/$file"; }
    done
    rm -rf root/etc root/var root/usr/share
    cp root/usr/bin/busybox busybox
    # First in the guest's path: what busybox has hides this machine's programs.
    mkdir -p root/usr/local/sbin
    for program in $(command busybox --list); do
        ln -sf /usr/bin/busybox "root/usr/local/sbin/$program"
    done
    ln -sf busybox root/usr/bin/sh
    ln -sf busybox root/usr/bin/env
}
