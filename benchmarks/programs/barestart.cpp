/* SPDX-License-Identifier: MIT */
/* The least that the start of a program with GStreamer takes: it initialises the library and writes a byte.
 */
#include <gst/gst.h>
#include <unistd.h>

int
main(int argc, char **argv)
{
  gst_init(&argc, &argv);
  return write(STDOUT_FILENO, "\n", 1) == 1 ? 0 : 1;
}
