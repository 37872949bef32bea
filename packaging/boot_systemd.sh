#!/usr/bin/env bash
# Boots systemd as process 1 over a root folder, in namespaces of its own, with the units, cgroups and journal of a
# real machine but no network. Runs as root until that systemd ends, or until this process is killed.
# Usage: boot_systemd.sh ROOT CGROUP
#
# The systemd inside is the child of this process, and manages a cgroup of its own below the unified hierarchy.
set -euo pipefail
root=$(realpath "$1")
cgroup=$2

# On hybrid systems the unified hierarchy is not at the top.
for hierarchy in /sys/fs/cgroup /sys/fs/cgroup/unified /sys/fs/cgroup/systemd; do
  [ -e "$hierarchy/cgroup.procs" ] || continue
  mkdir -p "$hierarchy/$cgroup"
  echo $$ >"$hierarchy/$cgroup/cgroup.procs"
done

boot() {
  set -euo pipefail
  mount --bind "$1" "$1"
  cd "$1"
  mount -t proc proc proc
  mount -t sysfs -o ro,nosuid,nodev,noexec sysfs sys
  mount -t tmpfs -o mode=755 tmpfs sys/fs/cgroup
  mount -t cgroup2 cgroup2 sys/fs/cgroup
  mount -t tmpfs -o mode=755 tmpfs run
  mount -t tmpfs tmpfs tmp
  mount -t tmpfs -o mode=755 tmpfs dev
  mkdir dev/pts dev/shm
  mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
  mknod -m 666 dev/null c 1 3
  mknod -m 666 dev/zero c 1 5
  mknod -m 666 dev/full c 1 7
  mknod -m 666 dev/random c 1 8
  mknod -m 666 dev/urandom c 1 9
  mknod -m 666 dev/tty c 5 0
  touch dev/console
  ln -s pts/ptmx dev/ptmx
  ln -s /proc/self/fd dev/fd
  mkdir -p old
  pivot_root . old
  cd /
  umount -l old
  exec env -i container=lxc PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    /lib/systemd/systemd --system --log-target=journal --show-status=no
}
export -f boot

exec unshare --mount --pid --uts --ipc --cgroup --net --fork --kill-child --propagation private \
  bash -c 'boot "$1"' boot "$root"
