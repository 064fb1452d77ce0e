#include "tests/requests/RequestWork.inc"

std::vector<RequestWork> optimizedRequestWork() { return {std::begin(works), std::end(works)}; }
