// Batch list files are text a person may have edited anywhere. Whatever parses must format,
// save and load back to the same rows; whatever does not must say which line and why, and
// loading it from a file must refuse it the same way, naming the file.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "batch/BatchList.h"

using namespace zub::batch;

namespace {

[[noreturn]] void Fault(const char* what, const std::string& detail = {}) { zub::fuzz::Fault("batch list", what, detail); }
std::string Scratch(const char* suffix) { return zub::fuzz::Scratch("batch", suffix); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const std::string path = Scratch(".zbl");
    static const std::string copy = Scratch("-copy.zbl");
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    std::vector<BatchRow> rows{BatchRow{"untouched", kTypeVideo, {}, {}, {}, {}, {}, false}};
    const std::vector<BatchRow> before = rows;
    std::string error;
    const bool parsed = ParseBatchList(text, rows, &error);
    if (!parsed) {
        if (rows != before) Fault("a refused list changed the rows");
        if (error.rfind("line ", 0) != 0) Fault("refusal does not name a line", error);
    } else {
        for (const BatchRow& r : rows)
            if (r.fileName.empty() || r.type < kTypeUnknown || r.type > kTypeImages || !r.result.empty() || r.failed)
                Fault("accepted a row it promises to refuse");
        const std::string formatted = FormatBatchList(rows);
        std::vector<BatchRow> again;
        if (!ParseBatchList(formatted, again, &error)) Fault("own output refused", error);
        if (again != rows) Fault("format and parse changed the rows");
        if (FormatBatchList(again) != formatted) Fault("formatting is not stable");
    }

    // The same bytes as a file.
    if (FILE* f = std::fopen(path.c_str(), "wb")) {
        if (size) std::fwrite(data, 1, size, f);
        std::fclose(f);
    } else {
        Fault("cannot write", path);
    }
    std::vector<BatchRow> loaded = before;
    std::string loadError;
    if (LoadBatchList(path, loaded, &loadError) != parsed) Fault("file and text disagree", loadError);
    if (!parsed) {
        if (loadError.rfind(path + ": ", 0) != 0 || loadError.find(error) == std::string::npos)
            Fault("load refusal does not name the file and the reason", loadError);
        return 0;
    }
    if (loaded != rows) Fault("file and text gave different rows");
    if (!SaveBatchList(copy, rows, &loadError)) Fault("cannot save", loadError);
    std::vector<BatchRow> back;
    if (!LoadBatchList(copy, back, &loadError) || back != rows) Fault("save and load changed the rows", loadError);
    std::remove(copy.c_str());
    return 0;
}
