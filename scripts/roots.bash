# Clean systems in directories, for scripts/matrix: sourced, not run. Everything here works in a mount namespace of its
# own, so whatever is mounted goes with the process that mounted it.

# The mirror of Debian that this machine's package manager uses.
debian_mirror() {
  local mirror
  # shellcheck disable=SC2016 # The names are apt's.
  mirror=$(apt-get indextargets --format '$(ORIGIN) $(LABEL) $(REPO_URI)' 'Created-By: Packages' |
    sed -n 's/^Debian Debian //p' | head -n 1)
  [ -n "$mirror" ] || { printf 'roots: apt knows no mirror of Debian; run apt-get update first\n' >&2; return 1; }
  printf '%s' "$mirror"
}

# base_root SUITE DIR: the smallest Debian of that name, made once, from DIR.tar where somebody has put one. Nothing
# writes to it again.
base_root() {
  local suite=$1 root=$2 file
  [ ! -e "$root/made" ] || return 0
  rm -rf --one-file-system "$root"
  mkdir -p "$root/system"
  if [ -f "$root.tar" ]; then
    tar -xpf "$root.tar" -C "$root/system"
  else
    debootstrap --variant=minbase "$suite" "$root/system" "$(debian_mirror)"
  fi
  # Proxies and checks of dates are the machine's affair.
  apt-config dump | grep -E '^Acquire::(http|https|Check)' \
    >"$root/system/etc/apt/apt.conf.d/90machine" || true
  # Nothing in a root outlives the machine, so nothing needs to be synced.
  printf 'force-unsafe-io\n' >"$root/system/etc/dpkg/dpkg.cfg.d/matrix"
  for file in resolv.conf hosts; do cp -L "/etc/$file" "$root/system/etc/$file"; done
  : >"$root/made"
}

# open_root ROOT LAYER PLACE LOWER: mounts at ROOT the directories LOWER, with what is written on top of them going to
# LAYER, and gives it what a running system has. /tmp lies in PLACE, on a file system without layers.
open_root() {
  local root=$1 layer=$2 place=$3 lower=$4 node
  mkdir -p "$root" "$layer/upper" "$layer/work" "$place/tmp"
  mount -t overlay overlay -o "lowerdir=$lower,upperdir=$layer/upper,workdir=$layer/work" "$root"
  mount -t proc proc "$root/proc"
  mount -t sysfs -o ro sysfs "$root/sys"
  mount -t tmpfs -o mode=755 dev "$root/dev"
  for node in null zero full random urandom tty; do
    : >"$root/dev/$node"
    mount --bind "/dev/$node" "$root/dev/$node"
  done
  ln -s /proc/self/fd "$root/dev/fd"
  mkdir "$root/dev/shm"
  mount -t tmpfs -o mode=1777 shm "$root/dev/shm"
  chmod 1777 "$place/tmp"
  mount --bind "$place/tmp" "$root/tmp"
}

# add_terminals ROOT: pseudo-terminals, which a container may lack.
add_terminals() {
  mkdir "$1/dev/pts"
  mount -t devpts -o newinstance,ptmxmode=0666,mode=0620,gid=5 devpts "$1/dev/pts"
  ln -s pts/ptmx "$1/dev/ptmx"
}

# bind_directory DIR ROOT PATH
bind_directory() {
  mkdir -p "$1" "$2$3"
  mount --bind "$1" "$2$3"
}

# inside ROOT USER COMMAND...: runs it in ROOT, which becomes its whole world (a chroot would forbid it name spaces of
# users). Only what is named in `environment` reaches it.
environment=()
inside() {
  local root=$1 user=$2 home=/root
  shift 2
  [ "$user" = root ] || home=/home/$user
  # shellcheck disable=SC2016 # Expanded by the inner shell.
  unshare --mount -- bash -euc '
    pivot_root "$1" "$1/mnt"
    cd /
    umount -l /mnt
    user=$2
    shift 2
    exec setpriv --reuid "$user" --regid "$user" --init-groups -- setsid --wait "$@"' \
    inside "$root" "$user" env -i "HOME=$home" "USER=$user" "LOGNAME=$user" TERM=dumb LANG=C.UTF-8 \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    "${environment[@]}" "$@"
}

# mount_kind KIND PLACE TARGET: an empty file system of that kind at TARGET, kept in memory below PLACE.
mount_kind() {
  local kind=$1 place=$2 target=$3
  mkdir -p "$place" "$target"
  mount -t tmpfs -o mode=755 place "$place"
  case $kind in
    ext4 | xfs | btrfs)
      truncate -s 12G "$place/image"
      case $kind in
        ext4) mkfs.ext4 -q -F "$place/image" ;;
        *) "mkfs.$kind" -q "$place/image" ;;
      esac
      mount -o loop "$place/image" "$target" ;;
    overlayfs)
      mkdir "$place/lower" "$place/upper" "$place/work"
      mount -t overlay overlay -o "lowerdir=$place/lower,upperdir=$place/upper,workdir=$place/work" "$target" ;;
    tmpfs) mount -t tmpfs scratch "$target" ;;
    bindfs)
      mkdir "$place/through"
      bindfs "$place/through" "$target" ;;
    *) return 1 ;;
  esac
  chmod 1777 "$target"
}
