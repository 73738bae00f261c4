// Writes an MPEG-4 file (ISO/IEC 14496-12 and -14) or a 3GP file (3GPP TS 26.244).
#pragma once

#include <media/stagefright/MediaWriter.h>

namespace android {

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

    // The installed platform's writer, which does the work.
    const sp<MediaWriter>& implementation() const { return mImplementation; }

protected:
    ~MPEG4Writer() override;

private:
    const sp<MediaWriter> mImplementation;
};

}  // namespace android
