/* SPDX-License-Identifier: MIT */
#pragma once

#include <gtest/gtest.h>
#include <string>

/* TRUE when the environment variable ONVIF_SCHEMA_DIR names the official schemas. */
bool have_onvif_schemas();

/* TRUE when the schemas allow a document with only this child of tt:MetadataStream. */
testing::AssertionResult is_valid_fragment(const std::string &fragment);
