// How far the driver's messages have been processed. Raised by the message threads alone.
//
// Threads: read from any thread.
// Units: the driver's time stamps.
#pragma once

#include "drivercomm/high_water_mark.h"

namespace zel {

// The latest time stamp of any message but a queue sync notification.
inline constinit HighWaterMark LastMessageTime;

// The latest time stamp of a queue sync notification: every message that the driver created before
// then has been received, though another thread may still be at work on it
// (drivercomm/messages_in_hand.h).
inline constinit HighWaterMark LastSyncTime;

}  // namespace zel
