#include "meta/tagTable.h"

const std::array<MetaTagRow, tagRows> tagTable{{
    {0, 0, 0, nullptr, {0, 0}},
    {META_TAG_STRING, 1, 0, "Name", {TAG_NAME, 0}},
    {META_TAG_INT, 0, 0, "Size", {TAG_SIZE, 0}},
    {META_TAG_STRING, 0, 0, "Type", {TAG_TYPE, 0}},
    {META_TAG_STRING, 0, 0, "Format", {TAG_FORMAT, 0}},
    {META_TAG_STRING, 1, 0, "Collection Type", {TAG_COLLECTION_TYPE, 0}},
    {META_TAG_STRING, 0, 0, "Part path", {TAG_PART_PATH, 0}},
    {META_TAG_HASH, 0, 0, "Part Hash", {TAG_PART_HASH, 0}},
    {META_TAG_INT, 0, 0, "part trans", {TAG_PART_TRANS, 0}},
    {META_TAG_INT, 0, 0, "gap start", {TAG_GAP_START, 0}},
    {META_TAG_INT, 0, 0, "gap end", {TAG_GAP_END, 0}},
    {META_TAG_STRING, 1, 0, "Description", {TAG_DESCRIPTION, 0}},
    {META_TAG_INT, 0, 0, "ping", {TAG_PING, 0}},
    {META_TAG_INT, 0, 0, "history", {TAG_HISTORY, 0}},
    {META_TAG_INT, 0, 0, "pref", {TAG_PREF, 0}},
    {META_TAG_INT, 0, 0, "Port", {TAG_PORT, 0}},
    {META_TAG_INT, 0, 0, "IP", {TAG_IP, 0}},
    {META_TAG_INT, 0, 0, "Version", {TAG_VERSION, 0}},
    {META_TAG_STRING, 0, 0, "tempFileName", {TAG_TEMPFILENAME, 0}},
    {META_TAG_INT, 0, 0, "Priority", {TAG_PRIORITY, 0}},
    {META_TAG_INT, 0, 0, "state", {TAG_STATE, 0}},
    {META_TAG_INT, 0, 0, "Availability", {TAG_AVAILABILITY, 0}},
    {META_TAG_INT, 0, 0, "QTime", {TAG_QTIME, 0}},
    {META_TAG_INT, 0, 0, "parts", {TAG_PARTS, 0}},
}};

namespace {

struct OneByteNames {
    char names[256][2] = {};
    constexpr OneByteNames() {
        for (int i = 0; i < 256; ++i) names[i][0] = static_cast<char>(i);
    }
};
constexpr OneByteNames oneByteNames;

}  // namespace

const char* oneByteName(u8 character) { return oneByteNames.names[character]; }
