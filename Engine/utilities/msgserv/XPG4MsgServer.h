#pragma once

#include <memory>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"

/// \file
/// The texts that the debugger's programs show to their users, in the user's language.
///
/// A text is found by two numbers in a message catalog, which is a shared library of its own:
/// \code
///   const XPG4MsgServer messages(nullptr, "dbg");  // libwobndbg.so, the language of "LANG"
///   const EncodedString text = messages.getMessage(1, 17);
/// \endcode
/// They are called a set and a number as in message sources, of which
/// cmake/CulMessageCatalog.cmake builds catalogs; what they mean is the catalog's affair. How a
/// catalog is loaded and its language chosen is told in LibraryMessageServer.h.
///
/// A server is made once for each catalog and kept. Texts can be got on any thread, as far as
/// the catalog's own function goes.

class LibraryMessageServer;

/// What every message server does. XPG4MsgServer names this type
/// XPG4MsgServer::SystemMessageServer.
class CUL_EXPORT SystemMessageServer {
 public:
  SystemMessageServer(const SystemMessageServer&) = delete;
  SystemMessageServer& operator=(const SystemMessageServer&) = delete;

  /// The text of a message; empty when there is none.
  [[nodiscard]] virtual EncodedString getMessage(int set, int number) const = 0;

  /// The bytes of the text as they stand in the catalog; none when there is no such message.
  [[nodiscard]] virtual ByteString getRawMessage(int set, int number) const = 0;

  virtual ~SystemMessageServer() = default;

 protected:
  SystemMessageServer() = default;
};

/// The server that the rest of the engine holds.
class CUL_EXPORT XPG4MsgServer : public SystemMessageServer {
 public:
  /// The interface, under the name by which the engine knows it.
  using SystemMessageServer = ::SystemMessageServer;

  /// Opens the catalog "wobn" + `name`, as LibraryMessageServer() does.
  /// \param language a locale's name; null: that of the environment.
  /// \param name     null counts as empty.
  XPG4MsgServer(const char* language, const char* name);
  XPG4MsgServer(const XPG4MsgServer&) = delete;
  XPG4MsgServer& operator=(const XPG4MsgServer&) = delete;

  [[nodiscard]] EncodedString getMessage(int set, int number) const override;
  [[nodiscard]] ByteString getRawMessage(int set, int number) const override;

  ~XPG4MsgServer() override;

 private:
  std::unique_ptr<LibraryMessageServer> server;
};
