include $(sort $(wildcard $(BR2_EXTERNAL_TERN_PATH)/package/*/*.mk))
