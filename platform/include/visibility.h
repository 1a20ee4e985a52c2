#pragma once

// Everything is built with hidden visibility; only what the platform offers across library boundaries is
// exported.
#define KITE_API __attribute__((visibility("default")))
