/// @file
/// libKorvane: the whole public interface. Include this one header and link
/// with -lKorvane.
#ifndef KORVANE_KORVANE_H
#define KORVANE_KORVANE_H

#include "korvane/automation.h"
#include "korvane/export.h"
#include "korvane/fs.h"
#include "korvane/interfaces.h"
#include "korvane/io.h"
#include "korvane/sync.h"
#include "korvane/system.h"
#include "korvane/types.h"

#endif
