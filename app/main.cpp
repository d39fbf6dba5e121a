#include "app/entry.h"
#include "i4min/threads/linux/linux_threads.h"

int main(int argc, char** argv) { return i4_main(argc, argv, runApplication); }
