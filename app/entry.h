// The application's entry, which i4_main calls.
#pragma once

class ConClientApp;

// Brings the engine up, hands the process to the console, and takes the engine down again. The working
// directory is the process's current one.
void runApplication(int argc, char** argv);

// The same with a console to which `extend`, which may be null, has added commands.
using ExtendConsole = void (*)(ConClientApp& console);
void runConsole(ExtendConsole extend);
