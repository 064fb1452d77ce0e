#pragma once

#include <string>

/// \file
/// Texts in UTF-8 of some KB in which the share of characters beyond ASCII differs.

/// `paragraph` over and over, to at least 4 KB.
inline std::string fill(const std::string& paragraph) {
  std::string text;
  while (text.size() < 4096) {
    text += paragraph;
  }
  return text;
}

inline std::string asciiText() {
  return fill(
      "A breakpoint stops the program before the statement it is set on. The debugger then "
      "shows the source line, the values of the variables in scope and the chain of callers. "
      "Stepping over a call runs the called function at full speed; stepping into it stops "
      "at its first line.\n");
}

/// One character in twelve or so takes two bytes.
inline std::string latinText() {
  return fill(
      "Le d\u00e9bogueur arr\u00eate le programme d\u00e8s que l'ex\u00e9cution atteint "
      "l'\u00e9l\u00e9ment choisi. Die Ausf\u00fchrung h\u00e4lt vor der n\u00e4chsten Zeile; "
      "die Gr\u00f6\u00dfe des Stapels l\u00e4sst sich pr\u00fcfen. La ejecuci\u00f3n "
      "contin\u00faa despu\u00e9s de la se\u00f1al, y las l\u00edneas se muestran a\u00fan. "
      "O c\u00f3digo n\u00e3o est\u00e1 \u00e0 m\u00e3o.\n");
}

/// Nearly every character takes three bytes.
inline std::string japaneseText() {
  return fill(
      "\u30c7\u30d0\u30c3\u30ac\u306f\u30d7\u30ed\u30b0\u30e9\u30e0\u3092\u505c\u6b62"
      "\u3055\u305b\u3001\u5909\u6570\u306e\u5024\u3068\u547c\u3073\u51fa\u3057\u306e"
      "\u9023\u9396\u3092\u8868\u793a\u3057\u307e\u3059\u3002\u6b21\u306e\u884c\u307e"
      "\u3067\u5b9f\u884c\u3092\u7d9a\u3051\u308b\u3053\u3068\u3082\u3067\u304d\u307e"
      "\u3059\u3002\n");
}
