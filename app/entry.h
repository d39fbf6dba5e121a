// The application's entry, which i4_main calls.
#pragma once

// Brings the engine up, hands the process to the console, and takes the engine down again.
void runApplication(int argc, char** argv);
