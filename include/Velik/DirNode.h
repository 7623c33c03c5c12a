// A traced wrapper around one open directory stream:
//
//   Velik::Util::DirNode dir(*handler, "/etc/mydaemon.d", nullptr);
//   dir.openDir();                                   // stays closed if missing
//   for (const std::string& name : dir.findFiles(".conf")) { ... }
//
// A node can name a parent node, so nodes can form a tree of directories; the
// parent is only kept, never consulted.
//
// A directory that cannot be opened because it is missing, not a directory
// or not readable is an expected case, traced at level 9 only; the node stays
// closed, `readEntry` then returns null and `rewind` and `findFiles` throw
// `Velik::RuntimeException`. Traces go to the handler given: 9 for the entry
// of each operation, 8 for found files, 5 for reads of a closed node, 1 for
// errors, 0 for the text of an error that is then thrown.
#pragma once

#include <Velik/Debug.h>

#include <dirent.h>

#include <memory>
#include <string>
#include <vector>

namespace Velik::Util {

class DirNode : public Debuggable {
  public:
    static constexpr const char* traceClassName = "DirNode";

    // No path, not open. `handler` must be owned by a shared pointer.
    explicit DirNode(Platform::DebugHandler& handler);
    // Keeps `path` and `parent` (which may be empty); opens nothing.
    DirNode(Platform::DebugHandler& handler, const std::string& path,
            std::shared_ptr<DirNode> parent);
    // A copy has the same path and parent but is not open: a stream has one
    // owner. A move takes the stream along.
    DirNode(const DirNode& other);
    DirNode(DirNode&& other) noexcept;
    DirNode& operator=(const DirNode& other);
    DirNode& operator=(DirNode&& other) noexcept;
    // Closes the stream if open; a failing close is traced at level 1.
    ~DirNode();

    // Replaces the path. An open stream stays open, on the old directory,
    // until the next `openDir()`.
    void pathIs(const std::string& path);

    // (Re)opens the stream on the path, closing any open one first. On
    // failure the node is closed; ENOENT, EACCES and ENOTDIR are traced at
    // level 9, other errors at level 1.
    void openDir();

    // The next entry (name and type), or null at the end of the directory or
    // when the node is not open. A read error throws
    // `Velik::RuntimeException`. The entry is valid until the next read.
    const struct dirent* readEntry() const;

    // Back to the first entry. Throws `Velik::RuntimeException` when the
    // node is not open.
    void rewind() const;

    // The bare names of the regular files and symbolic links whose names end
    // in `extension`, in directory order ("" matches all of them; a name
    // equal to the extension matches). Rewinds first, so repeated calls give
    // the same list. Entries the directory reports with an unknown type are
    // left out. Throws `Velik::RuntimeException` when the node is not open.
    std::vector<std::string> findFiles(const std::string& extension) const;

    const std::string& path() const { return path_; }
    const std::shared_ptr<DirNode>& parent() const { return parent_; }
    bool isOpen() const { return dir_ != nullptr; }

  private:
    // Closes and forgets the stream; returns 0 or the close's errno.
    int closeDir() noexcept;

    DIR* dir_ = nullptr;
    std::shared_ptr<DirNode> parent_;
    std::string path_;
};

}  // namespace Velik::Util
