// The editor library's per-session state. The session owns one and asks nothing of it.
#pragma once

namespace android {
namespace qmmediaeditor {

class QmMediaEditorUtils {};

}  // namespace qmmediaeditor
}  // namespace android
