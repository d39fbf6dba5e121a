// Records for tests.
#pragma once

#include <memory>
#include <string>

#include "meta/FileMeta.h"
#include "tests/support/bytes.h"

// The record of a file whose hash repeats one byte.
inline std::unique_ptr<FileMeta> makeFile(const std::string& name, u32 size, u8 hash) {
    auto file = std::make_unique<FileMeta>();
    file->setName(name.c_str());
    file->setInt(TAG_SIZE, size);
    file->hash = hashOf(hash);
    return file;
}
