# SPDX-License-Identifier: MIT
include $(sort $(wildcard $(BR2_EXTERNAL_TESSARD_PATH)/package/*/*.mk))
