// The "--authorize" mode: asks the user for the permission to recognise speech.
#pragma once

namespace palaver {

class JSONLineWriter;
struct Platform;

// Asks, waits for the answer however long it takes, and writes it as one "helper.authorization" event. Main
// thread.
void requestLegacyAuthorization(Platform& platform, JSONLineWriter& writer);

}  // namespace palaver
