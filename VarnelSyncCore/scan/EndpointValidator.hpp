#pragma once

#include "model/SyncOptions.hpp"
#include "model/SyncProfile.hpp"
#include "scan/CloudFolderDetection.hpp"
#include "scan/FileSystemProviding.hpp"
#include "scan/FolderAccessChecking.hpp"
#include "scan/ValidatedEndpoints.hpp"
#include "scan/VolumeIdentity.hpp"
#include "transfer/EndpointRole.hpp"

#include <optional>
#include <string>

namespace varnel {

// Checks a profile's two folders before anything is scanned, so that a run can never
// read or write the wrong folders or the wrong drive. Never writes: a missing
// destination is reported, not created.
//
// validate() runs these checks in order; the first that fails throws its SyncError:
// 1. the source exists (endpointNotFound) and is a folder, a link to one counting as
//    one (endpointNotADirectory); a path that cannot be examined for lack of permission
//    is sourceNotReadable;
// 2. the same for the destination (destinationNotWritable for lack of permission);
// 3. the source is readable (sourceNotReadable);
// 4. the destination is writable for the running user, even root: a read-only mount or
//    read-only bind mount is not (destinationNotWritable);
// 5. both are canonicalised; equal canonical paths, compared exactly, are
//    sourceAndDestinationIdentical;
// 6. destinationInsideSource, then sourceInsideDestination, by whole components;
// 7. both volumes are read; on one volume, a Mirror profile gets a warning;
// 8. each side whose volume the profile recorded (source first):
//    - volumeNotMounted when the recorded volume is not the one holding the folder and
//      its mount point is not where the folder now lies (recordedVolumeIsNotMounted):
//      a removable drive whose mount point is now a plain folder on the root file
//      system is caught here, never taken for an empty destination;
//    - volumeIdentityMismatch when VolumeIdentity::match finds another volume (say, a
//      different disk now mounted at the recorded mount point);
//    - a volumeIdentityUnverifiable warning, "Source volume: " or "Destination volume: "
//      and the reason, when the volume cannot be confirmed.
// What a profile expects of its folders.
struct EndpointExpectations {
    SyncMode mode = SyncMode::update;
    std::optional<VolumeIdentity> sourceVolume;  // as recorded when the folder was chosen
    std::optional<VolumeIdentity> destinationVolume;

    static EndpointExpectations of(const SyncProfile& profile) {
        return {profile.mode, profile.sourceVolume, profile.destinationVolume};
    }
};

class EndpointValidator {
public:
    EndpointValidator(FileSystemProviding& fileSystem, FolderAccessChecking& access, CloudFolderDetection cloud)
        : fileSystem_(fileSystem), access_(access), cloud_(std::move(cloud)) {}

    // `source` and `destination` are absolute paths. Throws SyncError; a file-system
    // failure other than a vanished folder (an I/O error reading a volume) passes up as
    // POSIXFileError.
    ValidatedEndpoints validate(const std::string& source, const std::string& destination,
                                const EndpointExpectations& expected = {}) const;

    // The identity to record for a folder the user has just chosen: the volume holding
    // it and the cloud domain it lies in. Throws POSIXFileError.
    VolumeIdentity identityOf(const std::string& folder) const;

    // Whether a recorded volume is simply absent: the recorded identity names a mount
    // point, the folder now lies on a volume mounted somewhere else (or nowhere known),
    // and no equal UUID shows that this is the recorded volume after all. The same mount
    // point with another UUID is not this case: another volume is mounted there, which
    // VolumeIdentity::match reports as a mismatch.
    static bool recordedVolumeIsNotMounted(const VolumeIdentity& recorded, const VolumeIdentity& found);

private:
    struct Located {
        VolumeInfo volume;
        std::optional<CloudFolderInfo> cloud;
    };

    void requireFolder(EndpointRole role, const std::string& path) const;
    std::string canonical(EndpointRole role, const std::string& path) const;
    Located locate(EndpointRole role, const std::string& canonicalPath) const;
    void checkIdentity(EndpointRole role, const std::optional<VolumeIdentity>& recorded, const VolumeIdentity& found,
                       std::vector<SyncWarning>& warnings) const;

    FileSystemProviding& fileSystem_;
    FolderAccessChecking& access_;
    CloudFolderDetection cloud_;
};

}  // namespace varnel
