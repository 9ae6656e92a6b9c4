#pragma once
// Long files wait on disk between their upload and their transcription, and a client that never asks for the
// transcription leaves them there. The janitor removes what is older than the retention time: at start, then
// at every interval on a thread of its own. A file that is being written or transcribed is never touched; the
// handlers mark it busy for as long as they use it.
//
// Per upload id the folder holds "<id>.partial" while the bytes arrive, then "<id>.upload" and "<id>.owner".
// Age is the time since the last write of the file; files of other names are left alone.
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace sprelio::server {

class UploadJanitor {
public:
    // Holds one upload id busy until destroyed.
    class Busy {
    public:
        Busy(Busy&& other) noexcept : owner_(other.owner_), id_(std::move(other.id_)) { other.owner_ = nullptr; }
        Busy& operator=(Busy&&) = delete;
        Busy(const Busy&) = delete;
        ~Busy();

    private:
        friend class UploadJanitor;
        Busy(UploadJanitor* owner, std::string id) : owner_(owner), id_(std::move(id)) {}
        UploadJanitor* owner_;
        std::string id_;
    };

    // A retention of zero or less keeps files for ever.
    UploadJanitor(std::filesystem::path folder, std::chrono::seconds retention, std::chrono::seconds interval);
    ~UploadJanitor();
    UploadJanitor(const UploadJanitor&) = delete;
    UploadJanitor& operator=(const UploadJanitor&) = delete;

    // Marks `id` busy. A sweep that runs at the same moment either has removed the files already (the caller
    // then finds none) or leaves them alone.
    Busy markBusy(const std::string& id);
    bool isBusy(const std::string& id) const;

    // Removes the old files of every id that is not busy; returns the number of files removed.
    std::size_t sweep(std::filesystem::file_time_type now = std::filesystem::file_time_type::clock::now());

    // Sweeps now, then every interval until stop().
    void start();
    void stop();

private:
    void release(const std::string& id);
    void run();

    std::filesystem::path folder_;
    std::chrono::seconds retention_;
    std::chrono::seconds interval_;
    mutable std::mutex mutex_;
    std::set<std::string> busy_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace sprelio::server
