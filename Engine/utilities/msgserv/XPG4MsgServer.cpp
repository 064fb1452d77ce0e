#include "Engine/utilities/msgserv/XPG4MsgServer.h"

#include "Engine/internal/FixedLayout.h"
#include "Engine/utilities/msgserv/LibraryMessageServer.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(XPG4MsgServer, 16);
CUL_FIXED_FIELD(XPG4MsgServer, server, 8);

XPG4MsgServer::XPG4MsgServer(const char* language, const char* name)
    : server(std::make_unique<LibraryMessageServer>(ByteString("wobn") + ByteString(name),
                                                    language)) {}

XPG4MsgServer::~XPG4MsgServer() = default;

EncodedString XPG4MsgServer::getMessage(int set, int number) const {
  return server->getMessage(set, number);
}

ByteString XPG4MsgServer::getRawMessage(int set, int number) const {
  return server->getRawMessage(set, number);
}
