/* SPDX-License-Identifier: MIT */
#pragma once

#include "tessarderror.h"
#include "tessardevents.h"
#include "tessarditem.h"
#include "tessardproducer.h"
