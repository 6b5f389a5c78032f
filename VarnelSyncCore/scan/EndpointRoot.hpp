#pragma once

#include <memory>
#include <string>

namespace varnel {

// A folder opened once as the root of an endpoint (source, destination, or the engine's
// own staging folder). Every item inside is addressed by (root, RelativePath), so no
// operation can leave the folder through "..", a symbolic link, or a folder swapped for
// a link during a run. Cheap to copy; the implementation's handle is shared.
class EndpointRoot {
public:
    // What a FileSystemProviding keeps for an open root (a directory descriptor, say).
    class Handle {
    public:
        virtual ~Handle() = default;
    };

    EndpointRoot() = default;
    EndpointRoot(std::string path, std::shared_ptr<const Handle> handle)
        : path_(std::move(path)), handle_(std::move(handle)) {}

    // The absolute path the root was opened at; used in messages only.
    const std::string& path() const { return path_; }
    bool isOpen() const { return handle_ != nullptr; }

    // The implementation's own handle, or nullptr when this root came from another one.
    template <typename T>
    const T* handleAs() const { return dynamic_cast<const T*>(handle_.get()); }

private:
    std::string path_;
    std::shared_ptr<const Handle> handle_;
};

}  // namespace varnel
