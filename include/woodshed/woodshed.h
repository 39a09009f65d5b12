/* Woodshed: every family's interface in one include. */
#ifndef WOODSHED_H
#define WOODSHED_H

#include "woodshed/common.h"
#include "woodshed/metronome.h"
#include "woodshed/recorder.h"
#include "woodshed/takes.h"
#include "woodshed/tuner.h"

#endif
