// libFuzzer target: query sentences and fixture lines, on a small store.
// The first byte chooses: even, a sentence (parsed, then selected); odd, a
// fixture line (imported, then exported). Only DbaError may come out.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>
#include <unistd.h>

#include "Sentence.h"
#include "Store.h"

namespace {

store::Store& fuzzStore()
{
    static const std::filesystem::path folder = std::filesystem::temp_directory_path() / ("calvarine-fuzz-" + std::to_string(getpid()));
    static const std::shared_ptr<store::Store> store = [] {
        std::filesystem::remove_all(folder);
        auto opened = store::Store::create(folder / "fuzz.db");
        opened->importJsonLine(R"({"dict": "F", "name": "N", "attr": 1}
{"dict": "F", "name": "R", "attr": 2, "justify": "R"}
{"dict": "F", "name": "K", "attr": 0}
{"file": "F", "key": "a1", "record": ["x", ["1", "10"]]}
{"file": "F", "key": "b2", "attrs": {"2": "9", "3": [["s", "t"], "u"]}})",
            "seed");
        return opened;
    }();
    return *store;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    auto& store = fuzzStore();
    try {
        if (data[0] % 2 == 0) {
            (void)store::sentence::parse(text);
            (void)store.select(text, data[0] % 4 == 0 ? "0" : "0 1 2");
        } else {
            store.importJsonLine(text, "fuzz");
            std::ostringstream out;
            store.exportJsonLines(out);
        }
    } catch (const DbaError&) {
    }
    return 0;
}
