# Model directories with PyTorch weights, through the built module.
okv2_add_test(NAME pytorch_import_test
  SOURCES pytorch_import_test.cpp
  LIBS ${CMAKE_DL_LIBS}
  DEFINES OKV2_MODULE="$<TARGET_FILE:importer_hf>"
  LABELS plugin)
add_dependencies(pytorch_import_test importer_hf)

okv2_add_test(NAME pt_source_test
  SOURCES pt_source_test.cpp
  LIBS okv2_convert
  LABELS plugin)
