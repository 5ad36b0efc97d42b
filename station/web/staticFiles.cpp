#include "web/staticFiles.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>

#include "basics/text.h"
#include "common/log.h"
#include "common/text.h"
#include "web/answerBuilder.h"
#include "web/gzip.h"

namespace station {

namespace {

struct ContentType {
    std::string_view extension;
    std::string_view type;
};
// Files of other kinds are not served.
constexpr std::array kContentTypes = std::to_array<ContentType>({
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".svg", "image/svg+xml"},
    {".png", "image/png"},
    {".ico", "image/x-icon"},
    {".woff2", "font/woff2"},
    {".json", "application/json"},
    {".webmanifest", "application/manifest+json"},
});

constexpr std::array<std::string_view, 2> kLibraryFiles = {"dygraph.min.js", "dygraph.min.css"};

// Weak, since compressed answers bear it as well.
std::string etagOf(std::string_view content) {
    return "W/\"" + basics::fingerprintText(content) + "\"";
}

// With what those get who accept gzip.
PayloadPointer filePayload(std::string content) {
    std::string gzip = content.size() < AnswerBuilder::kSmallestToCompress ? std::string() : gzipOf(content);
    return std::make_shared<Payload>(std::move(content), std::move(gzip));
}

constexpr std::string_view kIndex = "index.html";
constexpr std::string_view kPlainAddress = "\"page/";  // as index.html names its files

}  // namespace

StaticFiles::StaticFiles(const std::filesystem::path& page, const std::filesystem::path& dygraphs) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(page, error), end; !error && entry != end;
         entry.increment(error)) {
        read(entry->path(), page_);
    }
    setVersion();
    for (const std::string_view name : kLibraryFiles) {
        read(dygraphs / name, library_);
    }
    if (page_.empty()) {
        log(LogLevel::kWarning, "no page in " + page.string() + ": the station answers its API alone");
    } else if (library_.size() < kLibraryFiles.size()) {
        log(LogLevel::kWarning, "no dygraph.min.js and dygraph.min.css in " + dygraphs.string() +
                                    ": the page shows no plots; install libjs-dygraphs");
    }
}

void StaticFiles::read(const std::filesystem::path& file, Files& files) {
    const std::string name = file.filename().string();
    const auto type = std::ranges::find(kContentTypes, file.extension().string(), &ContentType::extension);
    std::error_code error;
    if (type == kContentTypes.end() || name.starts_with('.') ||
        !std::filesystem::is_regular_file(file, error)) {
        return;
    }
    if (files.size() >= kFiles || std::filesystem::file_size(file, error) > kFileBytes) {
        log(LogLevel::kWarning, file.string() + " is not served: too many files, or over 4 MiB");
        return;
    }
    std::ifstream stream(file, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(stream)), {});
    if (!stream) {
        log(LogLevel::kWarning, file.string() + " cannot be read and is not served");
        return;
    }
    std::string etag = etagOf(content);
    files.emplace(name, File{type->type, std::move(etag), filePayload(std::move(content))});
}

void StaticFiles::setVersion() {
    std::string all;
    for (const auto& [name, file] : page_) {
        all.append(name).append(file.etag);
    }
    version_ = basics::fingerprintText(all);
    const auto index = page_.find(kIndex);
    if (index == page_.end()) {
        return;
    }
    std::string text(index->second.payload->text());
    for (std::size_t at = 0; (at = text.find(kPlainAddress, at)) != std::string::npos;) {
        at += kPlainAddress.size();
        text.insert(at, version_ + "/");
    }
    index->second.etag = etagOf(text);
    index->second.payload = filePayload(std::move(text));
}

Response StaticFiles::answer(const Files& files, std::string_view name) {
    const auto found = files.find(name);
    if (found == files.end()) {
        return problem(404, "There is no such file on this server");
    }
    Response response;
    response.contentType = found->second.contentType;
    response.body = found->second.payload;
    response.headers.emplace_back("ETag", found->second.etag);
    response.headers.emplace_back("Cache-Control", "no-cache");  // may be kept, and is asked for each time
    return response;
}

Response StaticFiles::page(std::string_view name) const {
    return answer(page_, name);
}

Response StaticFiles::versionedPage(std::string_view version, std::string_view name) const {
    if (version != version_) {
        return problem(404, "The page has another version: load it anew");
    }
    Response response = answer(page_, name);
    for (auto& [header, value] : response.headers) {
        if (header == "Cache-Control") {
            value = "public, max-age=31536000, immutable";
        }
    }
    return response;
}

Response StaticFiles::library(std::string_view name) const {
    return answer(library_, name);
}

}  // namespace station
