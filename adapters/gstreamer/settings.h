// The settings of a stream as properties of an element.
#pragma once

#include <gst/gst.h>
#include <speechenhance/stream.h>

G_BEGIN_DECLS

typedef struct {
  gint preset;  // chosen last
  SEStreamSettings stream;
} SeSettings;

// The preset that holds where none is set.
void se_settings_init(SeSettings* settings);

// Adds the properties, with identities from `first` on; returns the first identity that is free.
guint se_settings_install(GObjectClass* klass, guint first);

// Null, or why the value is not taken (a constant; `settings` is left as it was). The property is
// one of those that were installed from `first` on.
const char* se_settings_set(SeSettings* settings, guint property, const GValue* value);
void se_settings_get(const SeSettings* settings, guint property, GValue* value);

G_END_DECLS
