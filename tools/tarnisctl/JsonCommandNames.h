#pragma once

// The commands tarnisctl hands to tarnisctl-json, as both tools list them.
namespace tarnisctl {

// The sibling tool that runs them, looked up beside tarnisctl itself.
constexpr char kJsonTool[] = "tarnisctl-json";

constexpr char kIntentCommand[] = "intent";
constexpr char kIntentUsage[] = "ACTION JSON";
constexpr char kIntentSummary[] =
    "send a broadcast intent (JSON: {\"extras\":[...]}) through ITarnisSsiIntl.transferMessage";

constexpr char kEventCommand[] = "event";
constexpr char kEventUsage[] =
    "OPERATION ARGS...\n"
    "      reportSimpleEvent INT TEXT\n"
    "      reportEventV2 A B C BOOL\n"
    "      reportNativeFeatureEvent A B C\n"
    "      appCaptureLog A B C D\n"
    "      reportEventsV2 A JSON_LIST C BOOL\n"
    "      reportTrelvoEvent APP_ID PACKAGE PAYLOAD INT\n"
    "      reportTrelvoEvents APP_ID PACKAGE JSON_LIST INT\n"
    "     (JSON_LIST: a JSON array of strings, e.g. '[\"a\",\"b\"]')";

constexpr char kEventSummary[] = "call one ITarnisSsi reporting operation";

}  // namespace tarnisctl
