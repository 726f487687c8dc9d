// libFuzzer target: query sentences and fixture lines, each on a fresh small store.
// The first byte chooses: even, a sentence (parsed, then selected); odd, a
// fixture line (imported, then exported). Only DbaError may come out.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "Sentence.h"
#include "Fixtures.h"
#include "Store.h"

namespace {

// A fresh store for every input, so that no input depends on the ones before:
// an in-memory SQLite database costs no file and no sync.
std::shared_ptr<store::Store> freshStore()
{
    auto opened = store::Store::create(":memory:");
    store::importJsonLine(*opened, R"({"dict": "F", "name": "N", "attr": 1}
{"dict": "F", "name": "R", "attr": 2, "justify": "R"}
{"dict": "F", "name": "K", "attr": 0}
{"file": "F", "key": "a1", "record": ["x", ["1", "10"]]}
{"file": "F", "key": "b2", "attrs": {"2": "9", "3": [["s", "t"], "u"]}})",
        "seed");
    return opened;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const auto opened = freshStore();
    auto& store = *opened;
    try {
        if (data[0] % 2 == 0) {
            (void)store::sentence::parse(text);
            (void)store.select(text, data[0] % 4 == 0 ? "0" : "0 1 2");
        } else {
            store::importJsonLine(store, text, "fuzz");
            std::ostringstream out;
            store::exportJsonLines(store, out);
        }
    } catch (const DbaError&) {
    }
    return 0;
}
