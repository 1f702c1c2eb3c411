// Subcommands of twhost; each file cmd_<name>.cpp registers one.
#ifndef TWHOST_COMMANDS_H
#define TWHOST_COMMANDS_H

#include <CLI/CLI.hpp>

// Each adds its subcommand to app; when the subcommand runs it stores its exit status in
// exitCode (0 success, 1 failure, 2 bad usage).
void RegisterDetectCommand(CLI::App& app, int& exitCode);
void RegisterSampleCommand(CLI::App& app, int& exitCode);
void RegisterStreamCommand(CLI::App& app, int& exitCode);
void RegisterMobiledCommand(CLI::App& app, int& exitCode);
void RegisterLiveCamCommand(CLI::App& app, int& exitCode);
void RegisterIOActionCommand(CLI::App& app, int& exitCode);
void RegisterAudioOutCommand(CLI::App& app, int& exitCode);
void RegisterAudioFeedCommand(CLI::App& app, int& exitCode);
void RegisterRegionCommand(CLI::App& app, int& exitCode);

#endif
