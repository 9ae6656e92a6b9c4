#include "server/UploadJanitor.h"

#include <map>
#include <vector>

#include "base/Log.h"

namespace sprelio::server {

namespace {

bool isUploadFile(const std::filesystem::path& path) {
    auto extension = path.extension().string();
    return extension == ".partial" || extension == ".upload" || extension == ".owner";
}

} // namespace

UploadJanitor::Busy::~Busy() {
    if (owner_) owner_->release(id_);
}

UploadJanitor::UploadJanitor(std::filesystem::path folder, std::chrono::seconds retention,
                             std::chrono::seconds interval)
    : folder_(std::move(folder)), retention_(retention), interval_(interval) {}

UploadJanitor::~UploadJanitor() { stop(); }

UploadJanitor::Busy UploadJanitor::markBusy(const std::string& id) {
    std::lock_guard lock(mutex_);
    busy_.insert(id);
    return Busy(this, id);
}

bool UploadJanitor::isBusy(const std::string& id) const {
    std::lock_guard lock(mutex_);
    return busy_.count(id) > 0;
}

void UploadJanitor::release(const std::string& id) {
    std::lock_guard lock(mutex_);
    busy_.erase(id);
}

std::size_t UploadJanitor::sweep(std::filesystem::file_time_type now) {
    if (retention_.count() <= 0) return 0;
    // The lock is held for the whole sweep, so that no handler can start on an id between the test and the removal.
    std::lock_guard lock(mutex_);
    std::error_code ec;
    if (!std::filesystem::is_directory(folder_, ec)) return 0;

    // An id goes only when all its files are old: its upload and its owner file were written together, and a
    // half-removed pair would make a live upload unusable.
    struct Group {
        std::vector<std::filesystem::path> files;
        std::filesystem::file_time_type newest = std::filesystem::file_time_type::min();
    };
    std::map<std::string, Group> groups;
    for (std::filesystem::directory_iterator it(folder_, ec), end; !ec && it != end; it.increment(ec)) {
        const auto& path = it->path();
        if (!isUploadFile(path)) continue;
        std::error_code timeError;
        auto written = std::filesystem::last_write_time(path, timeError);
        if (timeError) continue;
        auto& group = groups[path.stem().string()];
        group.files.push_back(path);
        if (written > group.newest) group.newest = written;
    }
    if (ec) log(LogLevel::warning, "UploadJanitor.sweep() - cannot list " + folder_.string() + ": " + ec.message());

    std::size_t removed = 0;
    std::size_t ids = 0;
    for (const auto& [id, group] : groups) {
        if (busy_.count(id) || now - group.newest < retention_) continue;
        ++ids;
        for (const auto& file : group.files) {
            std::error_code removeError;
            if (std::filesystem::remove(file, removeError)) ++removed;
            else if (removeError)
                log(LogLevel::warning, "UploadJanitor.sweep() - cannot remove " + file.filename().string() + ": " +
                                           removeError.message());
        }
    }
    if (ids > 0)
        log(LogLevel::info, "UploadJanitor.sweep() - removed " + std::to_string(ids) +
                                " long-file upload(s) older than " + std::to_string(retention_.count()) + " s");
    return removed;
}

void UploadJanitor::start() {
    if (thread_.joinable()) return;
    {
        std::lock_guard lock(mutex_);
        stopping_ = false;
    }
    sweep();
    if (retention_.count() <= 0 || interval_.count() <= 0) return;
    thread_ = std::thread([this] { run(); });
}

void UploadJanitor::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void UploadJanitor::run() {
    std::unique_lock lock(mutex_);
    while (!wake_.wait_for(lock, interval_, [this] { return stopping_; })) {
        lock.unlock();
        sweep();
        lock.lock();
    }
}

} // namespace sprelio::server
