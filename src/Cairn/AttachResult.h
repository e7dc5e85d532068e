#pragma once

namespace Cairn {

// What attaching to a table file found: a new file, an existing file kept,
// or a file re-formatted. The values are bits so that results can be joined.
enum AttachResult : int { AttachedNew = 1, AttachedExisting = 2, AttachedReformatted = 4 };

}  // namespace Cairn
