/// @file
/// The C++ layer of libKorvane: include this one header and link with
/// -lKorvane. It is header-only over the flat interface (korvane/korvane.h,
/// also included): owners that destroy their handles, mutexes for the
/// standard lock guards, waits on std::chrono, and value types.
#ifndef KORVANE_KORVANE_HPP
#define KORVANE_KORVANE_HPP

#include "korvane/korvane.h"
#include "korvane/cpp/owner.hpp"
#include "korvane/cpp/sync.hpp"
#include "korvane/cpp/system.hpp"
#include "korvane/cpp/values.hpp"

#endif
