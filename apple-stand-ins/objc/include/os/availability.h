// Stands in for the SDK's header: availability concerns only Apple's systems.
#pragma once

#define API_AVAILABLE(...)
