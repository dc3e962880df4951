# The daemon's own user and group (vendor_vek), so that it runs neither as
# root nor as system. BoardConfig.mk: TARGET_FS_CONFIG_GEN += <vekd>/android/config.fs
[AID_VENDOR_VEK]
value: 2950
