# What happens to the packages in a build tree, one target for each step, in the folder WORK.
PKG_BUILD_DIR:=$(WORK)/source
PKG_INSTALL_DIR:=$(WORK)/install

.PHONY: configure install stage conffiles version
configure:
	$(Build/Prepare)
	$(Build/Configure)

install:
	$(Build/Install)

version:
	$(info $(PKG_VERSION))
	@:

define BuildPackage
stage: stage/$(1)
.PHONY: stage/$(1)
stage/$(1): install
	$$(INSTALL_DIR) $$(WORK)/stage/$(1)
	$$(call Package/$(1)/install,$$(WORK)/stage/$(1))

conffiles: conffiles/$(1)
.PHONY: conffiles/$(1)
conffiles/$(1):
	$$(info $$(Package/$(1)/conffiles))
	@:
endef
