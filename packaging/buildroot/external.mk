include $(BR2_EXTERNAL_TQOS_PATH)/tqos.mk
