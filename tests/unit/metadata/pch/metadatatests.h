/* SPDX-License-Identifier: MIT */
/* Precompiled for the unit tests of the elements and of the simulated camera, see ../../pch/unittests.h. */
#include <algorithm>
#include <functional>
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>
