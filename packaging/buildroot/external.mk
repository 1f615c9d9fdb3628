include $(sort $(wildcard $(BR2_EXTERNAL_QUILLWICK_PATH)/package/*/*.mk))
