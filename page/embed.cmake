# SPDX-License-Identifier: MIT
# Makes C++ of the page's style and script: cmake -DSTYLE=page.css -DSCRIPT=page.js -DINTO=page_parts.inc -P embed.cmake
file(READ ${STYLE} style)
file(READ ${SCRIPT} script)
file(SHA256 ${SCRIPT} hash)
string(REGEX REPLACE "(..)" "\\\\x\\1" hash ${hash})
file(WRITE ${INTO}
  "static constexpr char PAGE_STYLE[] = R\"page(${style})page\";\n"
  "static constexpr char PAGE_SCRIPT[] = R\"page(${script})page\";\n"
  "static constexpr char PAGE_SCRIPT_SHA256[] = \"${hash}\";\n")
