// Availability concerns Apple's systems only.
#pragma once

#define API_AVAILABLE(...)
