#include "backend/MultipartBody.h"

#include <fstream>

namespace sprelio {

namespace {
constexpr const char* kCrLf = "\r\n";
}

std::string MultipartBody::contentType() const { return "multipart/form-data; boundary=" + boundary_; }

MultipartBody& MultipartBody::addBytes(std::string name, std::optional<std::string> filename,
                                       std::optional<std::string> contentType, std::string bytes) {
    parts_.push_back(MultipartPart{std::move(name), std::move(filename), std::move(contentType), std::move(bytes)});
    return *this;
}

MultipartBody& MultipartBody::addFile(std::string name, std::optional<std::string> filename,
                                      std::optional<std::string> contentType, std::filesystem::path path) {
    parts_.push_back(MultipartPart{std::move(name), std::move(filename), std::move(contentType), std::move(path)});
    return *this;
}

std::string MultipartBody::partHeader(const MultipartPart& part) const {
    std::string header = "--" + boundary_ + kCrLf;
    header += "Content-Disposition: form-data; name=\"" + part.name + "\"";
    if (part.filename) header += "; filename=\"" + *part.filename + "\"";
    header += kCrLf;
    if (part.contentType) header += "Content-Type: " + *part.contentType + kCrLf;
    header += kCrLf;
    return header;
}

std::string MultipartBody::closing() const { return "--" + boundary_ + "--" + kCrLf; }

platform::HttpBody MultipartBody::body() const {
    platform::HttpBody body;
    for (const auto& part : parts_) {
        body.append(partHeader(part));
        if (const auto* bytes = std::get_if<std::string>(&part.content)) {
            body.append(*bytes);
        } else {
            body.appendFile(std::get<std::filesystem::path>(part.content));
        }
        body.append(kCrLf);
    }
    body.append(closing());
    return body;
}

std::optional<std::string> MultipartBody::bytes() const {
    std::string out;
    for (const auto& part : parts_) {
        out += partHeader(part);
        if (const auto* bytes = std::get_if<std::string>(&part.content)) {
            out += *bytes;
        } else {
            std::ifstream in(std::get<std::filesystem::path>(part.content), std::ios::binary);
            if (!in) return std::nullopt;
            char chunk[65536];
            while (in.read(chunk, sizeof chunk) || in.gcount() > 0) out.append(chunk, std::size_t(in.gcount()));
            if (in.bad()) return std::nullopt;
        }
        out += kCrLf;
    }
    out += closing();
    return out;
}

} // namespace sprelio
