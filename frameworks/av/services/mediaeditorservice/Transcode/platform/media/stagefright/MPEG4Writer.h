// Writes an MPEG-4 file (ISO/IEC 14496-12 and -14) or a 3GP file (3GPP TS 26.244).
#pragma once

#include <media/stagefright/MediaWriter.h>

#include <memory>

namespace android {

namespace qmmediaeditor {
class Platform;
}

class MPEG4Writer final : public MediaWriter {
public:
    // Keeps a duplicate of `fd`; the caller may close its own.
    explicit MPEG4Writer(int fd);

    status_t addSource(const sp<MediaSource>& source) override;
    status_t start(MetaData* params = nullptr) override;
    bool reachedEOS() override;
    status_t stop() override;
    status_t pause() override;
    void setListener(const sp<IMediaRecorderClient>& listener) override;

    // The session's platform, and its writer, which does the work.
    qmmediaeditor::Platform& platform() const { return *mPlatform; }
    const sp<MediaWriter>& implementation() const { return mImplementation; }

protected:
    ~MPEG4Writer() override;

private:
    const std::shared_ptr<qmmediaeditor::Platform> mPlatform;
    const sp<MediaWriter> mImplementation;
};

}  // namespace android
