#include "scan/EndpointValidator.hpp"

#include "common/Localization.hpp"
#include "scan/POSIXFileError.hpp"
#include "scan/PathComponents.hpp"
#include "transfer/SyncError.hpp"

#include <cerrno>

namespace varnel {

namespace {

bool isPermissionError(int errnoValue) { return errnoValue == EACCES || errnoValue == EPERM; }

// The failure for a folder that exists but may not be examined: the source cannot be
// read, the destination cannot be written.
SyncError accessError(EndpointRole role, const std::string& path) {
    if (role == EndpointRole::source) return SyncError::SourceNotReadable{path};
    return SyncError::DestinationNotWritable{path};
}

// Whether the error means the folder (or a folder on its way) is not there.
bool isMissing(int errnoValue) {
    return errnoValue == ENOENT || errnoValue == ENOTDIR || errnoValue == ELOOP || errnoValue == ENAMETOOLONG;
}

}  // namespace

void EndpointValidator::requireFolder(EndpointRole role, const std::string& path) const {
    try {
        FileSystemEntry entry = fileSystem_.entryAtPath(path);
        if (entry.isSymbolicLink()) {
            // A chosen folder may be reached through a link; what counts is where it leads.
            entry = fileSystem_.entryAtPath(fileSystem_.canonicalPath(path));
        }
        if (!entry.isDirectory()) throw SyncError(SyncError::EndpointNotADirectory{role, path});
    } catch (const POSIXFileError& error) {
        if (isPermissionError(error.errnoValue())) throw accessError(role, path);
        // Missing, a dangling or looping link, or unreachable for another reason: in
        // each case there is no folder to use at this path.
        throw SyncError(SyncError::EndpointNotFound{role, path});
    }
}

std::string EndpointValidator::canonical(EndpointRole role, const std::string& path) const {
    try {
        return fileSystem_.canonicalPath(path);
    } catch (const POSIXFileError& error) {
        if (isPermissionError(error.errnoValue())) throw accessError(role, path);
        throw SyncError(SyncError::EndpointNotFound{role, path});
    }
}

EndpointValidator::Located EndpointValidator::locate(EndpointRole role, const std::string& canonicalPath) const {
    Located located;
    try {
        located.volume = fileSystem_.volumeInfo(canonicalPath);
    } catch (const POSIXFileError& error) {
        if (isMissing(error.errnoValue())) throw SyncError(SyncError::EndpointNotFound{role, canonicalPath});
        throw;
    }
    located.cloud = cloud_.detect(canonicalPath);
    located.volume.identity.fileProviderDomainID = located.cloud ? located.cloud->domainID : std::nullopt;
    return located;
}

VolumeIdentity EndpointValidator::identityOf(const std::string& folder) const {
    const std::string canonicalPath = fileSystem_.canonicalPath(folder);
    VolumeIdentity identity = fileSystem_.volumeInfo(canonicalPath).identity;
    const auto cloud = cloud_.detect(canonicalPath);
    identity.fileProviderDomainID = cloud ? cloud->domainID : std::nullopt;
    return identity;
}

bool EndpointValidator::recordedVolumeIsNotMounted(const VolumeIdentity& recorded, const VolumeIdentity& found) {
    if (!recorded.mountPointPath) return false;
    if (recorded.volumeUUID && found.volumeUUID && *recorded.volumeUUID == *found.volumeUUID) return false;
    return found.mountPointPath != recorded.mountPointPath;
}

void EndpointValidator::checkIdentity(EndpointRole role, const std::optional<VolumeIdentity>& recorded,
                                      const VolumeIdentity& found, std::vector<SyncWarning>& warnings) const {
    if (!recorded) return;
    if (recordedVolumeIsNotMounted(*recorded, found)) {
        throw SyncError(SyncError::VolumeNotMounted{role, recorded->volumeName});
    }
    const MatchResult result = VolumeIdentity::match(*recorded, found);
    if (result.isMismatch()) throw SyncError(SyncError::VolumeIdentityMismatch{role, *result.reason()});
    if (result.isUnverifiable()) {
        const std::string message = role == EndpointRole::source ? trFormat("Source volume: {}", *result.reason())
                                                                 : trFormat("Destination volume: {}", *result.reason());
        warnings.emplace_back(SyncWarning::Category::volumeIdentityUnverifiable, message);
    }
}

ValidatedEndpoints EndpointValidator::validate(const std::string& source, const std::string& destination,
                                               const EndpointExpectations& expected) const {
    requireFolder(EndpointRole::source, source);
    requireFolder(EndpointRole::destination, destination);
    if (!access_.canRead(source)) throw SyncError(SyncError::SourceNotReadable{source});
    if (!access_.canWrite(destination)) throw SyncError(SyncError::DestinationNotWritable{destination});

    ValidatedEndpoints result;
    result.sourceURL = source;
    result.destinationURL = destination;
    result.canonicalSourceURL = canonical(EndpointRole::source, source);
    result.canonicalDestinationURL = canonical(EndpointRole::destination, destination);
    const std::string& canonicalSource = result.canonicalSourceURL;
    const std::string& canonicalDestination = result.canonicalDestinationURL;

    if (canonicalSource == canonicalDestination) {
        throw SyncError(SyncError::SourceAndDestinationIdentical{canonicalSource});
    }
    if (isStrictlyInside(canonicalDestination, canonicalSource)) {
        throw SyncError(SyncError::DestinationInsideSource{canonicalSource, canonicalDestination});
    }
    if (isStrictlyInside(canonicalSource, canonicalDestination)) {
        throw SyncError(SyncError::SourceInsideDestination{canonicalSource, canonicalDestination});
    }

    auto sourceSide = locate(EndpointRole::source, canonicalSource);
    auto destinationSide = locate(EndpointRole::destination, canonicalDestination);
    result.sourceVolume = std::move(sourceSide.volume);
    result.destinationVolume = std::move(destinationSide.volume);
    result.sourceCloud = std::move(sourceSide.cloud);
    result.destinationCloud = std::move(destinationSide.cloud);
    // One device number is one mounted file system: the archive can be reached by rename.
    result.isSameVolume = result.sourceVolume.deviceID == result.destinationVolume.deviceID;
    if (result.isSameVolume && expected.mode == SyncMode::mirror) {
        result.warnings.emplace_back(SyncWarning::Category::other,
                                     tr("The source and destination are on the same volume. Mirror mode will move "
                                        "destination-only items to the archive folder on that same volume."));
    }

    checkIdentity(EndpointRole::source, expected.sourceVolume, result.sourceVolume.identity, result.warnings);
    checkIdentity(EndpointRole::destination, expected.destinationVolume, result.destinationVolume.identity,
                  result.warnings);
    return result;
}

}  // namespace varnel
