/* SPDX-License-Identifier: MIT */
/* Precompiled for the unit tests: the headers of libraries that most of them include. Each test includes what
 * it uses all the same, because a build with b_pch=false has nothing else. */
#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <gio/gio.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>
