#include <host/writer/Images.h>
#include <qmtranscode/job/ImageMaker.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace android::qmmediaeditor::cli {

namespace {

// Two frames side by side.
using Pair = std::pair<size_t, size_t>;

std::vector<Pair> pairsOf(const std::vector<FrameSpan>& spans) {
    std::vector<FrameSpan> shown;
    std::copy_if(spans.begin(), spans.end(), std::back_inserter(shown),
                 [](const FrameSpan& span) { return span.first < span.end; });
    std::vector<Pair> pairs;
    if (shown.size() == 1) pairs.emplace_back(shown[0].first, shown[0].end - 1);
    for (size_t i = 1; i < shown.size(); ++i) {
        pairs.emplace_back(shown[i - 1].end - 1, shown[i].first);
    }
    return pairs;
}

// Null when a frame cannot be decoded.
std::optional<Image> drawSheet(ImageReader* reader, const std::vector<Pair>& pairs) {
    constexpr int kGap = 8;
    // Between the pairs of a line.
    constexpr int kWideGap = 32;
    constexpr int kLargestSide = 320;
    constexpr int kSmallestSide = 64;
    // A sheet of about the same height and width, up to what JPEG can have.
    const auto perLine =
        static_cast<int>(std::ceil(std::sqrt(static_cast<double>(pairs.size()) / 2)));
    const int side = std::clamp(2 * kLargestSide / perLine, kSmallestSide, kLargestSide);
    std::vector<Image> images;
    FrameSize cell{2, 2};
    for (const auto& [before, after] : pairs) {
        for (const size_t frame : {before, after}) {
            auto image = reader->read(frame, {side, side});
            if (!image) return std::nullopt;
            cell.width = std::max(cell.width, image->size.width);
            cell.height = std::max(cell.height, image->size.height);
            images.push_back(std::move(*image));
        }
    }
    const auto lines = static_cast<int>((pairs.size() + static_cast<size_t>(perLine) - 1) /
                                        static_cast<size_t>(perLine));
    const int pairWidth = 2 * cell.width + kGap + kWideGap;
    Image sheet({2 * kGap + perLine * pairWidth - kWideGap, kGap + lines * (cell.height + kGap)});
    for (size_t i = 0; i < images.size(); ++i) {
        const auto pair = static_cast<int>(i / 2);
        const int left = kGap + pair % perLine * pairWidth + (i % 2 == 0 ? 0 : cell.width + kGap);
        sheet.paste(images[i], left, kGap + pair / perLine * (cell.height + kGap));
    }
    return sheet;
}

}  // namespace

std::optional<std::vector<std::vector<uint8_t>>> drawImages(int fd, int rotation,
                                                            const std::vector<FrameSpan>& spans,
                                                            bool posters, bool sheet) {
    std::vector<std::vector<uint8_t>> files;
    const auto add = [&files](const std::optional<Image>& image) {
        if (image) files.push_back(encodeJpeg(*image));
        return image && !files.back().empty();
    };
    const std::vector<Pair> pairs = pairsOf(spans);
    // An output without video has no images.
    if (pairs.empty()) return files;
    const std::unique_ptr<ImageReader> reader = ImageReader::open(fd, rotation);
    if (reader == nullptr) return std::nullopt;
    constexpr FrameSize kWhole{1 << 16, 1 << 16};
    for (const FrameSpan& span : posters ? spans : std::vector<FrameSpan>()) {
        if (span.first == span.end) {
            files.emplace_back();
        } else if (!add(reader->read(span.first, kWhole))) {
            return std::nullopt;
        }
    }
    if (sheet && !pairs.empty() && !add(drawSheet(reader.get(), pairs))) return std::nullopt;
    return files;
}

}  // namespace android::qmmediaeditor::cli
