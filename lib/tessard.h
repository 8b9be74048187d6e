/* SPDX-License-Identifier: MIT */
#pragma once

#include "tessarderror.h"
#include "tessarditem.h"
#include "tessardproducer.h"
