#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those that are missing.
# Sourced by scripts/test and scripts/demo; safe to run again.
set -euo pipefail

VARNEL_PACKAGES=(
  cmake ninja-build g++ pkg-config
  libfmt-dev            # message and number formatting
  nlohmann-json3-dev    # profiles file, run logs, plan export
  libicu-dev            # NFC, case folding, grapheme clusters, calendars and time zones
  uuid-dev              # UUIDs
  libblkid-dev          # volume UUID and label of a block device
  libssl-dev            # SHA-256 (libcrypto) for verifying copied files
  libgtest-dev libgmock-dev  # tests
  libcli11-dev          # command-line parsing of the varnel-sync tool
  gettext               # translation of user sentences
  tzdata                # named time zones for the schedule tests
  e2fsprogs xfsprogs btrfs-progs  # mkfs for the volume tests on loop-mounted ext4, xfs, btrfs
  clang libclang-rt-14-dev llvm  # scripts/test-sanitizers: clang 14 with the ASan/UBSan and libFuzzer runtimes, llvm-symbolizer for readable reports
  dosfstools fusefat    # FAT destinations (mkfs.vfat; FAT through FUSE where the kernel has no vfat)
  exfatprogs exfat-fuse # exFAT destinations (mkfs.exfat; exFAT through FUSE)
  bindfs                # a FUSE destination whose process the vanishing-drive test kills
  nbdkit libnbd-bin     # a failing disk for the I/O error tests: nbdkit's error filter behind nbdfuse
)

varnel_install_missing_packages() {
  local missing=()
  local pkg
  for pkg in "${VARNEL_PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$pkg")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return 0
  fi
  echo "Installing missing packages: ${missing[*]}"
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
}
