# Writes the source that holds the product-data block. The time is SOURCE_DATE_EPOCH, or that of the
# commit that is built, or the present.
include(${CMAKE_CURRENT_LIST_DIR}/SourceDate.cmake)
cul_set_source_date(${CMAKE_CURRENT_LIST_DIR}/..)
string(TIMESTAMP date_and_time "%Y-%m-%d %H:%M:%S" UTC)
string(TIMESTAMP stamp "%Y%m%d%H%M%S" UTC)
file(WRITE ${OUTPUT} "#include \"Engine/internal/OwnProductData.h\"

const ProductData& ownProductData() noexcept {
  static constexpr ProductData data = {
      \"Debugger Engine\",
      \"${VERSION}\",
      \"${date_and_time}\",
      \"${stamp}\",
  };
  return data;
}
")
