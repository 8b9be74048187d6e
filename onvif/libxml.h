/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>

/* What code that reads XML needs of libxml2. */

G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlDoc, xmlFreeDoc)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlXPathCompExpr, xmlXPathFreeCompExpr)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlXPathContext, xmlXPathFreeContext)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlXPathObject, xmlXPathFreeObject)
