#pragma once

#include <gtest/gtest.h>
#include <string>

/* Whether the environment variable ONVIF_SCHEMA_DIR names the official schemas. */
bool have_onvif_schemas();

/* Whether the schemas allow a document with nothing but this child of tt:MetadataStream. */
testing::AssertionResult is_valid_fragment(const std::string &fragment);
