// The commands of the console.
#pragma once

class Servant;

// Adds every command, in the order of the table in commands.cpp.
void addCommands(Servant& servant);
