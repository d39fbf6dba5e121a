// The application's entry point, which i4_main calls.
#pragma once

class ConClientApp;

// Starts the engine, runs the console and stops the engine. Files are kept in the process's current
// directory.
void runApplication(int argc, char** argv);

// Runs the same with a console to which `extend` (may be null) has added commands.
using ExtendConsole = void (*)(ConClientApp& console);
void runConsole(ExtendConsole extend);
