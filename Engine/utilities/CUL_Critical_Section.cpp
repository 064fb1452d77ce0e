#include "Engine/utilities/CUL_Critical_Section.h"

CUL_Critical_Section::~CUL_Critical_Section() = default;
