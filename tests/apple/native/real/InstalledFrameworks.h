// The frameworks of the Mac.
#pragma once

namespace palaver {

struct InstalledFrameworks {};

}  // namespace palaver
