// A host with a GTK window. The library's callbacks come by GTK's own loop.

#include <gtk/gtk.h>

#include "tests/hosts/Probe.h"

int main() {
  GtkApplication* const application =
      gtk_application_new("org.quillmere.GtkHost", G_APPLICATION_NON_UNIQUE);
  const auto activate = [](GtkApplication* activated, gpointer) {
    gtk_window_present(GTK_WINDOW(gtk_application_window_new(activated)));
  };
  g_signal_connect(application, "activate", G_CALLBACK(+activate), nullptr);
  const int status = quillmere::testing::probe(
      {.run = [&] { g_application_run(G_APPLICATION(application), 0, nullptr); },
       .quit = [&] { g_application_quit(G_APPLICATION(application)); }});
  g_object_unref(application);
  return status;
}
