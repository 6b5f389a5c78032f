#pragma once

// The earlier name of MountSandbox, kept so its callers read as before:
//
//     if (auto why = ScratchMounts::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
//     ScratchMounts mounts(temporary.path());
//     const auto btrfs = mounts.mountImage("btrfs", {"mkfs.btrfs", "-q", "-f"}, 256 << 20, whyNot);
#include "support/MountSandbox.hpp"

namespace varnel::testing {

using ScratchMounts = MountSandbox;

}  // namespace varnel::testing
