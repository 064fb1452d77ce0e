#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"

/// \file
/// Which of the process's lowest file descriptors were open when it started.
///
/// The flag at index n, for n from 0 to 16, tells of descriptor n. A snapshot does not change
/// by itself. Nothing here changes `errno`.

class CUL_EXPORT OpenFiles : public List<bool> {
 public:
  /// A snapshot of this moment.
  OpenFiles();

  /// The snapshot taken by the first call, which belongs at the start of the process, before
  /// threads open files. Lives as long as the process.
  [[nodiscard]] static const OpenFiles& initialOpenFiles();
};
