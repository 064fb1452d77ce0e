#pragma once

/// A descriptor that is opened later must not take the place of a standard stream that is closed.
/// What stands in for one can be used as little: nobody takes output for written.
void openMissingStandardStreams();
