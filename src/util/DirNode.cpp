#include "Velik/DirNode.h"

#include "Velik/Errno.h"
#include "Velik/Exception.h"
#include "Velik/Fmtrace.h"

#include <cerrno>
#include <utility>

namespace Velik::Util {

namespace {

// Failures to open that callers expect (probing for optional directories).
bool isExpectedOpenError(int error) {
    return error == ENOENT || error == EACCES || error == ENOTDIR;
}

bool isFileOrLink(const struct dirent& entry) {
    return entry.d_type == DT_REG || entry.d_type == DT_LNK;
}

bool endsWith(const std::string& name, const std::string& suffix) {
    return name.size() >= suffix.size() &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

DirNode::DirNode(Platform::DebugHandler& handler) : Debuggable(handler) {}

DirNode::DirNode(Platform::DebugHandler& handler, const std::string& path,
                 std::shared_ptr<DirNode> parent)
    : Debuggable(handler), parent_(std::move(parent)), path_(path) {
    VELIK_TRACE(*this, 9, "path: {}", path_);
}

DirNode::DirNode(const DirNode& other)
    : Debuggable(other), parent_(other.parent_), path_(other.path_) {}

DirNode::DirNode(DirNode&& other) noexcept
    : Debuggable(std::move(other)),
      dir_(std::exchange(other.dir_, nullptr)),
      parent_(std::move(other.parent_)),
      path_(std::move(other.path_)) {}

DirNode& DirNode::operator=(const DirNode& other) {
    if (this != &other) {
        *this = DirNode(other);
    }
    return *this;
}

DirNode& DirNode::operator=(DirNode&& other) noexcept {
    if (this != &other) {
        closeDir();
        Debuggable::operator=(other);
        dir_ = std::exchange(other.dir_, nullptr);
        parent_ = std::move(other.parent_);
        path_ = std::move(other.path_);
    }
    return *this;
}

DirNode::~DirNode() {
    VELIK_TRACE(*this, 9, "path: {}", path_);
    if (const int error = closeDir(); error != 0) {
        VELIK_TRACE(*this, 1, "failed to close {} errno: {}", path_, strerror(error));
    }
}

int DirNode::closeDir() noexcept {
    if (!dir_) {
        return 0;
    }
    const int result = ::closedir(std::exchange(dir_, nullptr));
    return result == 0 ? 0 : errno;
}

void DirNode::pathIs(const std::string& path) {
    VELIK_TRACE(*this, 9, "path: {}", path);
    path_ = path;
}

void DirNode::openDir() {
    VELIK_TRACE(*this, 9, "path: {}", path_);
    if (const int error = closeDir(); error != 0) {
        VELIK_TRACE(*this, 1, "failed to close {} before reopening. errno: {}", path_,
                    strerror(error));
    }
    dir_ = ::opendir(path_.c_str());
    if (!dir_) {
        const int error = errno;
        const unsigned level = isExpectedOpenError(error) ? 9 : 1;
        VELIK_TRACE(*this, level, "failed to open {} errno: {}", path_, strerror(error));
    }
}

const struct dirent* DirNode::readEntry() const {
    VELIK_TRACE(*this, 9, "path: {}", path_);
    if (!dir_) {
        VELIK_TRACE(*this, 5, "cannot read {} because the directory is not open", path_);
        return nullptr;
    }
    errno = 0;
    const struct dirent* entry = ::readdir(dir_);
    if (!entry && errno != 0) {
        const std::string message =
            fmt::format("failed to read {} errno: {}", path_, strerror(errno));
        VELIK_TRACE(*this, 0, "{}", message);
        RuntimeException::throwException(message);
    }
    return entry;
}

void DirNode::rewind() const {
    VELIK_TRACE(*this, 9, "path: {}", path_);
    if (!dir_) {
        const std::string message =
            fmt::format("cannot rewind {} because the directory is not open", path_);
        VELIK_TRACE(*this, 0, "{}", message);
        RuntimeException::throwException(message);
    }
    ::rewinddir(dir_);
}

std::vector<std::string> DirNode::findFiles(const std::string& extension) const {
    VELIK_TRACE(*this, 9, "path: {} extension: {}", path_, extension);
    if (!dir_) {
        const std::string message = fmt::format(
            "cannot find {} files in {} because the directory is not open", extension, path_);
        VELIK_TRACE(*this, 0, "{}", message);
        RuntimeException::throwException(message);
    }
    rewind();
    std::vector<std::string> names;
    while (const struct dirent* entry = readEntry()) {
        if (!isFileOrLink(*entry)) {
            VELIK_TRACE(*this, 9, "skipping file: {}", entry->d_name);
            continue;
        }
        const std::string name = entry->d_name;
        if (endsWith(name, extension)) {
            VELIK_TRACE(*this, 8, "found file with extension {}: {}", extension, name);
            names.push_back(name);
        }
    }
    return names;
}

}  // namespace Velik::Util
