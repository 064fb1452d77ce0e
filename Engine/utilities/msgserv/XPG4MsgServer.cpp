#include "Engine/utilities/msgserv/XPG4MsgServer.h"

#include "Engine/utilities/msgserv/LibraryMessageServer.h"

XPG4MsgServer::XPG4MsgServer(const char* language, const char* name)
    : server(std::make_unique<LibraryMessageServer>(ByteString("wobn") + ByteString(name),
                                                    language)) {}

XPG4MsgServer::~XPG4MsgServer() = default;

EncodedString XPG4MsgServer::getMessage(int a, int b) const { return server->getMessage(a, b); }

ByteString XPG4MsgServer::getRawMessage(int a, int b) const { return server->getRawMessage(a, b); }
