// SPDX-License-Identifier: Apache-2.0
// The tags under which the library takes its lock. A tag is told by its address,
// so each one is a single object: acquire and release name the same constant.
#pragma once

inline constexpr char TAG_READ_ALL_CFG[] = "zoltLogReadAllCfg()";
inline constexpr char TAG_READ_PROD_ID_CFG[] = "zoltLogReadProdIDCfg()";
inline constexpr char TAG_READ_CFG[] = "zoltLogReadCfg()";
inline constexpr char TAG_READ_LOGSET_CFG[] = "zoltLogReadlogsetCfg()";
inline constexpr char TAG_WRITE_CFG[] = "zoltLogWriteCfg()";
inline constexpr char TAG_WRITE_LOGSET_CFG[] = "zoltLogWritelogSetCfg()";
inline constexpr char TAG_DYNA_LOAD_CONFIG[] = "zoltDynaLoadConfig()";
inline constexpr char TAG_REMOVE_PRODUCT_CFG[] = "zoltLogRemoveProductCfg";
inline constexpr char TAG_ADD_PRODUCT_CFG[] = "zoltLogAddProductCfg";
inline constexpr char TAG_GET_NEXT_SEQUENCE_NUMBER[] = "GetNextSequenceNumber()";
inline constexpr char TAG_MSG[] = "zoltLogMsg()";
inline constexpr char TAG_APP_MSG_2LEX[] = "zoltLogAppMsg2LEx()";
inline constexpr char TAG_DIAG_MSG_2L[] = "zoltLogDiagMsg2L()";
inline constexpr char TAG_AUDIT_MSG_2L[] = "zoltLogAuditMsg2L()";
inline constexpr char TAG_SECURE_AUDIT_MSG_L[] = "zoltLogSecureAuditMsgL()";
inline constexpr char TAG_FORMATTED_DEBUG_MSG[] = "zoltLogFormattedDebugMsg()";
inline constexpr char TAG_DEBUG_MSG_2V[] = "zoltLogDebugMsg2V()";
inline constexpr char TAG_SET_DEBUG_LEVEL[] = "zoltLogSetDebugLevel()";
inline constexpr char TAG_GET_DEBUG_LEVEL[] = "zoltLogGetDebugLevel()";
inline constexpr char TAG_SET_DIAG_LEVEL[] = "zoltLogSetDiagLevel()";
inline constexpr char TAG_GET_DIAG_LEVEL[] = "zoltLogGetDiagLevel()";
inline constexpr char TAG_SET_SECURE_AUDIT_LEVEL[] = "zoltLogSetSecureAuditLevel()";
inline constexpr char TAG_GET_SECURE_AUDIT_LEVEL[] = "zoltLogGetSecureAuditLevel()";
inline constexpr char TAG_SET_SEQUENCE_NUMBER[] = "zoltLogSetSequenceNumber()"; // also of the getter
inline constexpr char TAG_ADD_LOG_TO_FILE[] = "zoltLogAddLogToFile()";
inline constexpr char TAG_OPEN_FILE[] = "zoltLogOpenFile()";
inline constexpr char TAG_CLOSE_FILE[] = "zoltLogCloseFile()";
inline constexpr char TAG_CREATE_CONTEXT_TO_FILE[] = "zoltLogCreateContextToFile()";
