// The walk over the top-level boxes and the user data of a file, and the boxes that are made of
// what it finds.
#include <fuzz/MemoryFile.h>
#include <host/codec/RecordingMetadata.h>
#include <host/io/DescriptorFile.h>
#include <host/io/IsoBoxes.h>

using namespace android::qmmediaeditor;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const MemoryFile file(data, size);
    const auto input =
        DescriptorFile::openForReading(file.fd(), 0, static_cast<int64_t>(size)).file;
    const TopLevelBoxes boxes = readTopLevelBoxes(*input);
    if (boxes.movieOffset + boxes.movieBytes > static_cast<int64_t>(size)) abort();
    const TopLevelBoxes without = readTopLevelBoxes(*input, XmpLocations::kLeaveOut);
    if (without.uuidData.size() > boxes.uuidData.size()) abort();
    for (const UserDataBox& box : readUserData(*input, boxes.movieOffset)) {
        const std::string_view text(reinterpret_cast<const char*>(box.payload.data()),
                                    box.payload.size());
        const std::string clean = cleanMetadata(text);
        if (clean.size() > kMaxMetadataBytes || cleanMetadata(clean) != clean) abort();
        if (const auto time = creationTimeOf(clean); time && creationTimeOf(*time) != time) abort();
        isLocation(clean);
    }
    const std::vector<uint8_t> made = makeUuidBoxes(boxes.uuidData.data(), boxes.uuidData.size());
    if (made.empty()) return 0;

    // The boxes that go into a file come out of it again.
    const MemoryFile written(made.data(), made.size());
    const auto again =
        DescriptorFile::openForReading(written.fd(), 0, static_cast<int64_t>(made.size())).file;
    if (readTopLevelBoxes(*again).uuidData != boxes.uuidData) abort();
    return 0;
}
