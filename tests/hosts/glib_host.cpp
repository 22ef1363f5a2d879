// A host over a plain GLib loop.

#include <glib.h>

#include <memory>

#include "tests/hosts/Probe.h"

int main() {
  const std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)> loop(
      g_main_loop_new(nullptr, FALSE), &g_main_loop_unref);
  return quillmere::testing::probe(
      {.run = [&] { g_main_loop_run(loop.get()); }, .quit = [&] { g_main_loop_quit(loop.get()); }});
}
