/* SPDX-License-Identifier: MIT */
#pragma once

#include "receiver/message.h"

namespace sim
{

using receiver::shared_text_copy;
using receiver::shared_text_part;
using receiver::shared_text_view;
using receiver::SharedText;

/* The length of a message's text. */
constexpr gsize MAX_TEXT_BYTES = 16 * 1024 * 1024;

} // namespace sim
