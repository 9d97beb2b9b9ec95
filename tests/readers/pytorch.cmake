# The PyTorch road: the archive, the pickle machine and the tensor records.
okv2_add_test(NAME pytorch_test
  SOURCES
    pytorch_archive_limits_test.cpp
    pytorch_archive_test.cpp
    pytorch_open_test.cpp
    pytorch_ranges_test.cpp
    pytorch_records_test.cpp
    pytorch_witness_test.cpp
  LIBS okv2_readers
  LABELS readers)

# pickle_machine.cpp includes the machine's source file, whose types have no linkage, so it is built as the
# library is; the rest of the reader comes from there.
if(OKV2_SANITIZE)
  set_source_files_properties(pickle_machine.cpp PROPERTIES COMPILE_OPTIONS "-O1;-fsanitize=${OKV2_SANITIZE}")
elseif(OKV2_COVERAGE)
  set_source_files_properties(pickle_machine.cpp PROPERTIES COMPILE_OPTIONS "--coverage;-fprofile-update=atomic")
else()
  set_source_files_properties(pickle_machine.cpp PROPERTIES COMPILE_OPTIONS "$<$<NOT:$<CONFIG:Debug>>:-O3>")
endif()
okv2_add_test(NAME pickle_test
  SOURCES
    pickle_bytes_test.cpp
    pickle_document_test.cpp
    pickle_machine.cpp
    pickle_objects_test.cpp
    pickle_opcodes_test.cpp
    pickle_reference_test.cpp
    pickle_witness_test.cpp
    pytorch_corpus_test.cpp
  LIBS okv2_readers
  DEFINES OKV2_PYTORCH_DIALECT="${PROJECT_SOURCE_DIR}/docs/pytorch-dialect.md"
  LABELS readers)

# On its own: it counts every byte that is allocated.
okv2_add_test(NAME pickle_hostile_test
  SOURCES
    pickle_hostile_test.cpp
    pickle_machine.cpp
  LIBS okv2_readers
  LABELS readers)
# With flags of its own it cannot take headers that were compiled with the tests' flags.
set_source_files_properties(pickle_machine.cpp PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
