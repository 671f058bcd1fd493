// The real file system (behind a fault injector that fails nothing until
// told), real SHA-1 and a fresh folder: what tests of the manifest code share.
#pragma once

#include "platform/Platform.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/OpenSslDigestService.h"
#include "platform/testing/FaultInjectingFileSystem.h"
#include "platform/testing/TempDirectory.h"

namespace platform::testing {

struct LinuxTestBed {
  LinuxFileSystem linuxFs;
  FaultInjectingFileSystem fs{linuxFs};
  OpenSslDigestService digests;
  Platform platform{.fileSystem = &fs, .digests = &digests};
  TempDirectory dir;
};

}  // namespace platform::testing
