-- What the package does, in the tables of Windows Installer; a statement to a line, @VERSION@ and @HANDLER@ filled in by
-- Tools/package. It is not written in Clipforge_Thumbnails.wxs, since wixl does not put actions where it is told.

-- Another build of the same version is replaced as an older version is (513: up to and with); a newer one stays.
DELETE FROM `Upgrade`
INSERT INTO `Upgrade` (`UpgradeCode`, `VersionMin`, `VersionMax`, `Language`, `Attributes`, `Remove`, `ActionProperty`) VALUES ('{8C1D3E52-6B0F-4B7A-9E55-3A1B8E0C7D41}', '0.0.0', '@VERSION@', '', 513, '', 'OLDERFOUND')
INSERT INTO `Upgrade` (`UpgradeCode`, `VersionMin`, `VersionMax`, `Language`, `Attributes`, `Remove`, `ActionProperty`) VALUES ('{8C1D3E52-6B0F-4B7A-9E55-3A1B8E0C7D41}', '@VERSION@', '', '', 2, '', 'NEWERFOUND')
INSERT INTO `LaunchCondition` (`Condition`, `Description`) VALUES ('NOT NEWERFOUND OR REMOVE="ALL"', 'A newer version of Clipforge Thumbnails is installed. Remove it first if you want this one.')
INSERT INTO `LaunchCondition` (`Condition`, `Description`) VALUES ('VersionNT64 >= 601', 'Clipforge Thumbnails needs 64-bit Windows 7 or newer.')

-- For everybody unless MSIINSTALLPERUSER is 1. Explorer is not to be closed: nothing that it has loaded is in the way.
UPDATE `Property` SET `Value` = '2' WHERE `Property` = 'ALLUSERS'
INSERT INTO `Property` (`Property`, `Value`) VALUES ('MSIRESTARTMANAGERCONTROL', 'Disable')
INSERT INTO `Property` (`Property`, `Value`) VALUES ('REBOOT', 'ReallySuppress')
INSERT INTO `Property` (`Property`, `Value`) VALUES ('REINSTALLMODE', 'amus')
INSERT INTO `Property` (`Property`, `Value`) VALUES ('ARPPRODUCTICON', 'ProductIcon')
INSERT INTO `Property` (`Property`, `Value`) VALUES ('ARPNOMODIFY', '1')
INSERT INTO `Property` (`Property`, `Value`) VALUES ('HANDLERCOMPONENT', '@HANDLER@')
INSERT INTO `Property` (`Property`, `Value`) VALUES ('SecureCustomProperties', 'OLDERFOUND;NEWERFOUND;DECODERFOLDER;INSTALLFOLDER;MSIINSTALLPERUSER')

-- Functions of ours. 1: planning; 3073: changing, with the installer's rights when it installs for everybody, else the
-- user's; 3329: undoing such a change; 3649:
-- when all has worked. 64 more: its failure stops nothing.
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('ChooseFolder', 1, 'Setup', 'ChooseFolder')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('PrepareSetup', 1, 'Setup', 'PrepareSetup')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('UndoUnregisterHandler', 3329, 'Setup', 'RegisterHandler')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('UnregisterHandler', 3073, 'Setup', 'UnregisterHandler')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('CheckFolder', 3073, 'Setup', 'CheckFolder')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('TakeDecoder', 3137, 'Setup', 'TakeDecoder')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('UndoRegisterHandler', 3329, 'Setup', 'UndoRegisterHandler')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('RegisterHandler', 3073, 'Setup', 'RegisterHandler')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('DropDecoder', 3649, 'Setup', 'DropDecoder')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('TellAboutDecoder', 65, 'Setup', 'TellAboutDecoder')

-- An older version goes at the end of the same transaction, when this one has taken over registration and decoder library.
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('FindRelatedProducts', '', 25)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('LaunchConditions', '', 100)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('ChooseFolder', '', 790)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('PrepareSetup', '', 1010)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('MigrateFeatureStates', '', 1200)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('UndoUnregisterHandler', 'REMOVE="ALL" AND NOT UPGRADINGPRODUCTCODE', 2000)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('UnregisterHandler', 'REMOVE="ALL" AND NOT UPGRADINGPRODUCTCODE', 2010)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('CheckFolder', 'NOT REMOVE', 3900)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('UndoRegisterHandler', 'NOT REMOVE', 4010)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('TakeDecoder', 'TakeDecoder AND NOT REMOVE', 4020)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RegisterHandler', 'NOT REMOVE', 4030)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('DropDecoder', 'REMOVE="ALL"', 4040)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('InstallExecute', '', 6500)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RemoveExistingProducts', '', 6550)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('TellAboutDecoder', 'NOT REMOVE', 6610)

-- The folders go with what was put into them.
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `FileName`, `DirProperty`, `InstallMode`) VALUES ('VersionFolder', 'Handler', '', 'VERSIONFOLDER', 2)
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `FileName`, `DirProperty`, `InstallMode`) VALUES ('InstallFolder', 'Handler', '', 'INSTALLFOLDER', 2)
