// What twhost --version reports.
#ifndef TWHOST_VERSION_H
#define TWHOST_VERSION_H

#include <string>

namespace tw::host {
class PluginModule;
}

// The version note of a loaded plug-in ("1.0.0"), or empty when it carries none.
std::string PluginVersion(const tw::host::PluginModule& module);
// The whole --version text, one component a line.
std::string VersionText();

#endif
