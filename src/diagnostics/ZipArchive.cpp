#include "diagnostics/ZipArchive.h"

#include <zip.h>

#include <algorithm>
#include <vector>

namespace sprelio {

namespace fs = std::filesystem;

bool zipFolderContents(const fs::path& folder, const fs::path& zipFile) {
    std::error_code ec;
    std::vector<fs::path> items;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) items.push_back(it->path());
    if (ec) return false;
    std::sort(items.begin(), items.end());

    int openError = 0;
    zip_t* archive = zip_open(zipFile.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &openError);
    bool zipped = archive != nullptr;
    for (const fs::path& item : items) {
        if (!zipped) break;
        zip_source_t* source = zip_source_file(archive, item.c_str(), 0, -1); // -1: to the end
        if (!source) {
            zipped = false;
            break;
        }
        if (zip_file_add(archive, item.filename().c_str(), source, ZIP_FL_ENC_UTF_8 | ZIP_FL_OVERWRITE) < 0) {
            zip_source_free(source);
            zipped = false;
        }
    }
    if (archive) {
        if (zipped && zip_close(archive) != 0) zipped = false;
        if (!zipped) zip_discard(archive);
    }
    if (!zipped) fs::remove(zipFile, ec);
    return zipped;
}

} // namespace sprelio
