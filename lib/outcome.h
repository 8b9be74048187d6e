/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <gio/gio.h>

/* The ways to learn how an operation of the worker has ended. */

/* Called once, on any thread, with the error of the operation, or NULL. */
using OutcomeFunction = std::function<void(const GError *error)>;

OutcomeFunction outcome_return_to(GTask *task);
gboolean outcome_wait(const std::function<void(OutcomeFunction function)> &start, GError **error);
