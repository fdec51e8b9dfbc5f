#!/usr/bin/env bash
# Fills SYSROOT with Debian's armhf Qt and every armhf library it needs to link and run, so that
# the cross-build compiles against it and qemu runs the armhf programs with it. The packages are
# downloaded by name and unpacked, never installed, so the build machine's own packages stay as
# they are; apt reads the armhf package indexes into a state of its own in the cache, so the
# machine's package configuration is not changed either. The downloads are kept in that cache
# outside the clone (HUST_ARMHF_CACHE, by default ~/.cache/hust-armhf, or /var/cache/hust-armhf
# without a home), one directory per package list, so a later run needs no network.
#
# usage: scripts/armhf-sysroot.sh SYSROOT
set -euo pipefail

sysroot=$(realpath -m "${1:?usage: $0 SYSROOT}")
arch=armhf

# What the build uses; the packages these depend on are added below.
roots=(qtbase5-dev libqt5sql5-sqlite libqt5test5)
# Left out together with whatever only they would pull in: the C and C++ run-times and headers
# come with the cross toolchain (and run from it under qemu), the armhf qmake is never run (its
# mkspecs, which Qt's headers include, are kept), and the GL vendor drivers are loaded only by a
# real display, which no build or test opens.
leaves=(libc6 libgcc-s1 libstdc++6 libc6-dev linux-libc-dev libcrypt-dev
  qt5-qmake-bin libegl-mesa0 libglx-mesa0 libgl1-mesa-dri)

if [ -n "${HUST_ARMHF_CACHE:-}" ]; then
  cache_root=$HUST_ARMHF_CACHE
elif [ -n "${XDG_CACHE_HOME:-}${HOME:-}" ]; then
  cache_root=${XDG_CACHE_HOME:-$HOME/.cache}/hust-armhf
else
  cache_root=/var/cache/hust-armhf
fi
key=$(printf '%s\n' "$arch" "${roots[@]}" -- "${leaves[@]}" | sha256sum | cut -c1-16)
cache=$cache_root/$key
stamp=$sysroot/.hust-sysroot
# apt's unprivileged download user may not reach the cache, so apt downloads as the caller.
apt_options=(-o "APT::Architectures::=$(dpkg --print-architecture)" -o "APT::Architectures::=$arch"
  -o "Dir::State::Lists=$cache_root/apt/lists" -o "Dir::Cache=$cache_root/apt/cache"
  -o APT::Sandbox::User="$(id -un)")

if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$key" ]; then
  exit 0
fi

# Prints the armhf packages that the given ones depend on, one a line. Of alternatives the first
# counts; a dependency that a package of the build machine or an architecture-independent one
# satisfies (tools, data, configuration) is not followed.
direct_dependencies() {
  apt-cache "${apt_options[@]}" depends --no-recommends --no-suggests --no-conflicts \
    --no-breaks --no-replaces --no-enhances "${@/%/:$arch}" | awk -v arch=":$arch" '
    function flush() { if (pending != "" && !foreign) print pending; pending = ""; foreign = 0 }
    function plain(name) { sub(arch "$", "", name); return name }
    /^[^ ]/ { flush(); alternative = 0; next }
    /^    / {
      if (pending == "" && virtual && index($1, arch)) pending = plain($1)
      else if (!index($1, arch)) foreign = 1
      virtual = 0
      next
    }
    {
      flush()
      later = alternative; alternative = ($1 ~ /^\|/); virtual = 0
      if (later) next
      if ($2 ~ /^</) virtual = 1
      else if (index($2, arch)) pending = plain($2)
    }
    END { flush() }'
}

# Walks the dependencies breadth first from the roots, stopping at the leaves.
closure() {
  local -A seen=()
  local p queue=("${roots[@]}") batch
  for p in "${leaves[@]}"; do seen[$p]=1; done
  while [ ${#queue[@]} -gt 0 ]; do
    batch=()
    for p in "${queue[@]}"; do
      [ -n "${seen[$p]:-}" ] && continue
      seen[$p]=1
      batch+=("$p")
    done
    [ ${#batch[@]} -gt 0 ] || break
    printf '%s\n' "${batch[@]}"
    mapfile -t queue < <(direct_dependencies "${batch[@]}")
  done
}

download() {
  mkdir -p "$cache_root/apt/lists/partial" "$cache_root/apt/cache"
  # A mirror in the middle of a sync fails one index now and then; what counts is that the armhf
  # packages resolve.
  apt-get "${apt_options[@]}" update -qq \
    || echo "apt-get update reported errors; going on with the indexes it has" >&2
  apt-cache "${apt_options[@]}" show "qtbase5-dev:$arch" >/dev/null

  local partial=$cache.partial
  rm -rf "$partial"
  mkdir -p "$partial"
  closure | sort >"$partial/packages"
  echo "Downloading $(wc -l <"$partial/packages") armhf packages into $cache"
  local names
  mapfile -t names < <(sed "s/\$/:$arch/" "$partial/packages")
  (cd "$partial" && apt-get "${apt_options[@]}" download -qq "${names[@]}")
  rm -rf "$cache"
  mv "$partial" "$cache"
  # Downloads for earlier package lists are of no further use.
  find "$cache_root" -mindepth 1 -maxdepth 1 -type d -not -name apt -not -name "$key" \
    -exec rm -rf {} +
}

unpack() {
  local tree=$sysroot.partial deb link target
  rm -rf "$tree"
  mkdir -p "$tree"
  for deb in "$cache"/*.deb; do
    dpkg-deb -x "$deb" "$tree"
  done
  # Packages link some files by absolute paths, which would leave the sysroot.
  while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    case $target in
      /*) ln -sfnr "$tree$target" "$link" ;;
    esac
  done < <(find "$tree" -type l -print0)
  echo "$key" >"$tree/.hust-sysroot"
  rm -rf "$sysroot"
  mv "$tree" "$sysroot"
}

if [ ! -f "$cache/packages" ]; then
  download
fi
unpack
echo "armhf sysroot ready: $sysroot ($(wc -l <"$cache/packages") packages)"
