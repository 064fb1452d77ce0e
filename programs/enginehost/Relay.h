#pragma once

#include "Engine/utilities/StdPipe.h"

/// \file
/// Hands on what a program prints.

/// Writes what arrives in `pipe` to the descriptor `target`, as it comes, until the last
/// writer has closed its end or `target` takes no more. The pipe's read end is closed
/// afterwards, so that the program learns of it as it would in a pipeline.
/// \return the number of bytes handed on.
/// \throws StdException when the pipe cannot be read.
unsigned long relay(StdPipe& pipe, int target);
