#include "console/SelfTest.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <vector>

#include "console/ConClientApp.h"
#include "console/commands.h"
#include "download/GapCounterList.h"
#include "download/GapList.h"
#include "download/PartialFile.h"
#include "engine/Engine.h"
#include "i4min/file/file.h"
#include "i4min/memory/HT32.h"
#include "i4min/memory/LL.h"
#include "meta/BoolArray.h"
#include "meta/MetaTag.h"

namespace {

// Several values under one key, and their removal.
class Hash32Test : public Test {
  public:
    using Test::Test;
    bool run() override {
        log_.printLine(" HashTable32 test:");
        int values[4] = {};
        HT32<int> table;
        table.setSize(17);
        const u32 key = 100;
        table.put(key, &values[0]);
        table.put(key, &values[1]);
        table.put(key + 1, &values[2]);
        table.put(key + 3, &values[3]);
        if (table.get(key)->getAt(0) != &values[0] || table.get(key)->getAt(1) != &values[1]) return false;
        table.removeValue(key, &values[0]);
        if (table.get(key)->getAt(0) != &values[1] || table.get(key)->getAt(1)) return false;
        table.removeValue(key, &values[1]);
        return !table.get(key) && table.get(key + 1)->getAt(0) == &values[2] &&
               table.get(key + 3)->getAt(0) == &values[3];
    }
};

// Tokens of a text, also with a buffer that is too small.
class StrtokTest : public Test {
  public:
    using Test::Test;
    bool run() override {
        log_.printLine(" i4_strtok test:");
        return gives("Hello OUT THere", {"Hello", "OUT", "THere"}) &&
               gives(".)Hello(test]]]]", {"Hello", "test"}) && gives(".!!{} ____", {}) &&
               gives(longText, {longText}) && comesInPieces();
    }

  private:
    static constexpr const char* delimiters = " ,_-.(){}[]!?<>\t\n";
    static constexpr const char* longText = "longstringofrandomwordsoverflowthebuffer";

    static bool gives(const char* text, std::initializer_list<const char*> tokens) {
        char out[256];
        i32 offset = 0;
        for (const char* token : tokens) {
            offset = i4_strtok(text, delimiters, offset, out, sizeof out);
            if (i4_strcmp(out, token) != 0) return false;
        }
        return i4_strtok(text, delimiters, offset, out, sizeof out) == 0;
    }
    static bool comesInPieces() {
        char out[256];
        const i32 offset = i4_strtok(longText, delimiters, 0, out, 5);
        if (i4_strcmp(out, "long") != 0) return false;
        i4_strtok(longText, delimiters, offset, out, sizeof out);
        return i4_strcmp(out, longText + 4) == 0;
    }
};

// Search in a text, ignoring case.
class StristrTest : public Test {
  public:
    using Test::Test;
    bool run() override {
        log_.printLine(" stristr test:");
        const char* text = "Hello OUT THere";
        const char* const expected[] = {text + 10, nullptr, text + 6, text};
        const char* const needles[] = {"thERe", "dog", "out", "hello"};
        for (int i = 0; i < 4; ++i) {
            if (stristr(text, needles[i]) != expected[i]) {
                log_.printLine("Test %d failed", i + 1);
                return false;
            }
        }
        return true;
    }
};

// Always passes; it only keeps its place in the list.
class TestMeta : public Test {
  public:
    using Test::Test;
    bool run() override { return true; }
};

// Flags, and the bytes of an array.
class TestBoolArray : public Test {
  public:
    using Test::Test;
    bool run() override {
        log_.printLine(" BoolArray test:");
        BoolArray array(10);
        array.set(0, true);
        array.set(5, true);
        if (array.get(2) || array.get(9) || array.toText() != "1000010000") return false;
        i4_owned_ram_file stream;
        array.write(stream);
        stream.seek(0);
        BoolArray read;
        read.read(stream);
        return read == array;
    }
};

// Order, sorting, shuffling and removal in a list.
class LLTest : public Test {
  public:
    using Test::Test;
    bool run() override {
        log_.printLine(" LL test:");
        int values[3] = {3, 1, 2};
        LL<int> list;
        LL<int>::Cursor cursor;
        if (list.count() != 0 || list.first() || list.next(cursor) || list.removeAt(0)) return false;
        list.add(nullptr);
        list.addFront(&values[1]);
        list.add(&values[2]);
        list.insertAt(0, &values[0]);
        if (list.count() != 3 || list.getAt(0) != &values[0] || list.getAt(2) != &values[2]) return false;
        list.sort([](const int* a, const int* b) { return *a <= *b; });
        if (*list.getAt(0) != 1 || *list.getAt(1) != 2 || *list.getAt(2) != 3) return false;
        list.shuffle(engine_.host.random);
        if (list.count() != 3 || !list.contains(&values[0]) || !list.contains(&values[1])) return false;
        return list.remove(&values[1]) && !list.remove(&values[1]) && list.count() == 2;
    }
};

std::vector<GapCounter> runsOf(const GapCounterList& list) {
    std::vector<GapCounter> runs;
    list.forEach([&](const GapCounter& run) { runs.push_back(run); });
    return runs;
}

bool isRuns(const GapCounterList& list, std::initializer_list<GapCounter> runs) {
    return runsOf(list) == std::vector<GapCounter>(runs);
}

// Ranges with counts of sources and requests.
class GapCounterListTest : public Test {
  public:
    using Test::Test;
    bool run() override {
        GapCounterList list;
        list.setSize(2000);
        list.change(0, 1000, 1);
        list.change(500, 1000, 1);
        list.addRequested(0, 20);
        list.addRequested(30, 40);
        list.removeRequested(30, 40);
        list.removeRequested(0, 0);
        if (!isRuns(list, {{0, 20, 1001}, {20, 500, 1}, {500, 1000, 2}, {1000, 2000, 0}})) return false;
        list.addDone(10, 600);
        list.removeDone(100, 200);
        if (!isRuns(list, {{0, 10, 1001},
                           {10, 100, 2000},
                           {100, 200, 0},
                           {200, 600, 2000},
                           {600, 1000, 2},
                           {1000, 2000, 0}})) {
            return false;
        }
        list.removeDone(0, 2000);
        return isRuns(list, {{0, 2000, 0}});
    }
};

bool isGaps(const GapList& list, std::initializer_list<Gap> gaps) {
    return list.gaps() == std::vector<Gap>(gaps);
}

// Ranges of missing bytes.
class GapListTest : public Test {
  public:
    using Test::Test;
    bool run() override {
        GapList list;
        list.addGap(0, 1000);
        list.removeGap(0, 10);
        list.addGap(100, 200);
        if (!isGaps(list, {{10, 1000}})) return false;
        list.removeGap(100, 200);
        list.addGap(150, 250);
        if (!isGaps(list, {{10, 100}, {150, 1000}})) return false;
        list.invert(1000);
        list.addGap(800, 1000);
        return isGaps(list, {{0, 10}, {100, 150}, {800, 1000}});
    }
};

// Keeps both lists in step: what one marks as present must not be in a gap of the other.
class GapSyncTest : public Test {
  public:
    using Test::Test;
    bool run() override {
        constexpr i64 size = 100;
        GapCounterList counters;
        counters.setSize(size);
        GapList gaps;
        gaps.addGap(0, size);
        for (int step = 0; step < 2000; ++step) {
            const i64 start = below(size - 1);
            const i64 end = start + 1 + below(size - start);
            switch (below(6)) {
                case 0:
                    counters.change(start, end, 1);
                    break;
                case 1:
                    counters.change(start, end, -1);
                    break;
                case 2:
                    counters.addRequested(start, end);
                    break;
                case 3:
                    counters.removeRequested(start, end);
                    break;
                case 4:
                    counters.addDone(start, end);
                    gaps.removeGap(start, end);
                    break;
                default:
                    counters.removeDone(start, end);
                    gaps.addGap(start, end);
                    break;
            }
            if (!inStep(counters, gaps)) return false;
        }
        return true;
    }

  private:
    static bool inStep(const GapCounterList& counters, const GapList& gaps) {
        for (const GapCounter& run : runsOf(counters)) {
            if (run.count == countDone && gaps.overlaps(run.start, run.end)) return false;
        }
        return true;
    }
};

// A PartialFile needs a source's parts that it lacks, if the source has the same number of parts.
// has.
class PFTest : public Test {
  public:
    using Test::Test;
    bool run() override {
        DLProgress progress;
        PartialFile file(engine_.downloadNeeds, progress);
        file.addGap(0, 1000);
        file.removeGap(200, 400);
        BoolArray parts(2);
        parts.setAll(true);
        return isGaps(file, {{0, 200}, {400, 1000}}) && file.overlaps(0, 300) && !file.overlaps(200, 400) &&
               !file.hasNeededPart(parts);
    }
};

// Every number has a text.
class StringTableTest : public Test {
  public:
    using Test::Test;
    bool run() override {
        const StringTable& strings = engine_.stringTable;
        for (u32 number = 0; number < strings.count(); ++number) {
            if (!strings.get(number)) return false;
        }
        return strings.count() == 78;
    }
};

}  // namespace

Test::Test(Engine& engine) : engine_(engine), log_(engine.ui) {}
i64 Test::below(i64 limit) { return engine_.host.random.below(static_cast<u32>(limit)); }

std::vector<std::unique_ptr<Test>> makeSelfTests(Engine& engine) {
    std::vector<std::unique_ptr<Test>> tests;
    const auto add = [&]<class... Tests>() { (tests.push_back(std::make_unique<Tests>(engine)), ...); };
    add.operator()<Hash32Test, StrtokTest, StristrTest, TestMeta, TestBoolArray, LLTest, GapCounterListTest,
                   GapListTest, GapSyncTest, PFTest, StringTableTest>();
    return tests;
}

void runTests(ConClientApp& console, char* line) {
    if (const std::optional<i32> number = numberArgument(line)) {
        console.testNumber = *number;
        console.log().printLine("Number set.");
        return;
    }
    const auto tests = makeSelfTests(console.engine());
    const bool passed = std::all_of(tests.begin(), tests.end(), [](const auto& test) { return test->run(); });
    console.log().printLine(passed ? "go." : "ERRORS ::::--- FIX NOW");
}
