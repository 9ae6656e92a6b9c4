#pragma once
// A multipart/form-data body whose bytes are fixed here, not by the transport: the boundary, every CR LF and
// every part header are written by this class, so that the bytes on the wire are known exactly. File parts stay
// on disk and are read while the body is sent.
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/Http.h"

namespace sprelio {

struct MultipartPart {
    std::string name;
    std::optional<std::string> filename;    // put in as it stands, with no escaping
    std::optional<std::string> contentType; // no Content-Type line when absent
    std::variant<std::string, std::filesystem::path> content;
};

class MultipartBody {
public:
    // `boundary` is the header's boundary parameter; each delimiter line is "--" + boundary.
    explicit MultipartBody(std::string boundary) : boundary_(std::move(boundary)) {}

    const std::string& boundary() const { return boundary_; }
    // "multipart/form-data; boundary=" + boundary
    std::string contentType() const;

    MultipartBody& addBytes(std::string name, std::optional<std::string> filename,
                            std::optional<std::string> contentType, std::string bytes);
    MultipartBody& addFile(std::string name, std::optional<std::string> filename,
                           std::optional<std::string> contentType, std::filesystem::path path);
    const std::vector<MultipartPart>& parts() const { return parts_; }

    // The body for the transport: part headers in memory, file contents as references to the files.
    platform::HttpBody body() const;
    // The whole body in memory, files read; nothing when a file can't be read. For small bodies and checks.
    std::optional<std::string> bytes() const;

private:
    std::string partHeader(const MultipartPart& part) const;
    std::string closing() const;

    std::string boundary_;
    std::vector<MultipartPart> parts_;
};

} // namespace sprelio
