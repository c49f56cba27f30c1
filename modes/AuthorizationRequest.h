// The "--authorize" mode: asks the user for the permission to recognise speech.
#pragma once

namespace palaver {

class JSONLineWriter;
struct Platform;

// From macOS 26 on no permission is needed, and the event says so. Before it: asks, waits for the answer
// however long it takes, and writes it as one "helper.authorization" event. Main thread.
void requestLegacyAuthorization(Platform& platform, JSONLineWriter& writer);

}  // namespace palaver
