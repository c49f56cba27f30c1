// Implements the "--authorize" mode: asks the user for the permission to recognize speech.
#pragma once

namespace palaver {

class JSONLineWriter;
struct Platform;

// From macOS 26 on, reports that no permission is needed. Before macOS 26, requests the permission, waits
// without a time limit for the answer, and writes it as one "helper.authorization" event. Main thread.
void requestLegacyAuthorization(Platform& platform, JSONLineWriter& writer);

}  // namespace palaver
