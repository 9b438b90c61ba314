// The guard's end of the notification socket, held by the host itself so that one terminal shows
// both sides.
#pragma once

// Opens a notification socket, announces it in NOTIFY_SOCKET and prints what arrives on it, from a
// thread of its own. Returns false when that fails.
bool startGuard();
