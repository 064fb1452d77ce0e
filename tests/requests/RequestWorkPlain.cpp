#include "tests/requests/RequestWork.inc"

std::vector<RequestWork> plainRequestWork() { return {std::begin(works), std::end(works)}; }
