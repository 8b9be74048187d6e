/* SPDX-License-Identifier: MIT */
#include "fleetoptions.h"

#include <cstdio>
#include <cstdlib>
#include <mosquitto.h>

/**
 * fail:
 * @what: what failed
 * @why: the reason
 *
 * Prints both and ends the program.
 */
void
fail(const char *what, const char *why)
{
  fprintf(stderr, "%s: %s: %s\n", g_get_prgname(), what, why);
  exit(EXIT_FAILURE);
}

/**
 * require:
 * @status: the result of a function of libmosquitto
 * @what: what it did
 *
 * Ends the program if @status is an error.
 */
void
require(int status, const char *what)
{
  if (status != MOSQ_ERR_SUCCESS) {
    fail(what, mosquitto_strerror(status));
  }
}

/**
 * parse_options:
 * @argc: (inout): the number of arguments
 * @argv: (inout): the arguments, afterwards the program and one more
 * @entries: the options
 * @argument: the name of the argument
 *
 * Ends the program if the options are not valid or the argument is missing.
 */
void
parse_options(int *argc, char ***argv, const GOptionEntry *entries, const char *argument)
{
  g_autoptr(GOptionContext) context = g_option_context_new(argument);
  g_autoptr(GError) error = nullptr;
  g_option_context_add_main_entries(context, entries, nullptr);
  if (!g_option_context_parse(context, argc, argv, &error)) {
    fail("options", error->message);
  }
  if (*argc != 2) {
    fail(argument, "is missing");
  }
}
