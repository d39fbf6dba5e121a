// The console's commands. Each is a plain function that gets a copy of the line and parses its arguments.
#pragma once

#include <optional>

#include "i4min/memory/types.h"
#include "i4min/threads/linux/RefCounter.h"

class ConClientApp;
class Search;
class Servant;

// Adds all commands: the table in commands.cpp and those of the settings.
void addCommands(Servant& servant);

// Returns the number at the start of a word: 0 if there is none, the nearest i32 if it is out of range.
i32 numberIn(const char* word);
// Returns the number after the command word, or empty if there is no second word.
std::optional<i32> numberArgument(char* line);
// Converts a position counted from 1 to one counted from 0. Empty for 0 and for values beyond any list.
std::optional<u16> listPlace(std::optional<i32> number);

// Parses the first four words after `s`. A word with a dash is the type; the last such word counts. Empty if
// there is no other word.
Ref<Search> searchFor(char* line);

void showHelp(ConClientApp& console, char* line);

// Directories.
void shareDirectory(ConClientApp& console, char* line);
void shareTree(ConClientApp& console, char* line);
void unshareDirectory(ConClientApp& console, char* line);

// Servers and searches.
void addServer(ConClientApp& console, char* line);
void removeServer(ConClientApp& console, char* line);
void connectToServer(ConClientApp& console, char* line);
void disconnectFromServer(ConClientApp& console, char* line);
void search(ConClientApp& console, char* line);
void extendSearch(ConClientApp& console, char* line);

// Downloads.
void downloadResult(ConClientApp& console, char* line);
void downloadLink(ConClientApp& console, char* line);
void openCollection(ConClientApp& console, char* line);
void downloadPart(ConClientApp& console, char* line);
void changeDownload(ConClientApp& console, char* line);

// Settings.
void setController(ConClientApp& console, char* line);
void setLimits(ConClientApp& console, char* line);
void changeSetting(ConClientApp& console, char* line);  // a setting's command, found by its row in Settings.h

// Views.
void viewResults(ConClientApp& console, char* line);
void viewServers(ConClientApp& console, char* line);
void viewDownloads(ConClientApp& console, char* line);
void viewUploads(ConClientApp& console, char* line);
void viewSharedDirectories(ConClientApp& console, char* line);
void viewSharedFiles(ConClientApp& console, char* line);
void viewConnections(ConClientApp& console, char* line);
void viewQueue(ConClientApp& console, char* line);
void viewOptions(ConClientApp& console, char* line);
void viewServerState(ConClientApp& console, char* line);
void viewDiskSpace(ConClientApp& console, char* line);

void runTests(ConClientApp& console, char* line);
