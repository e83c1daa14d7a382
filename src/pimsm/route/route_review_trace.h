#pragma once
// Shared by the two files of RouteReviewSm: its trace lines start with the
// VRF, like every machine's.

#include "cask/trace.h"

#define REVIEW_TRACE(lvl, f, ...) \
    CASK_TRACE(lvl, "<Vrf:{}>" f, in_.vrfName __VA_OPT__(, ) __VA_ARGS__)
