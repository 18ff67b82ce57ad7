#!/usr/bin/env python3
"""Writes Kestrava's two message files, alert.rc and alert3so.rc.

The daemon looks every operator-visible text up by message number: the
broadcasts to logged-in users (0, 1, 2, 204, 206), its own event-log codes and
the set and clear code of every UPS alarm. This script holds the wording and
the alarm code table in one place and writes both files, so that a changed
text or a new alarm reaches every number. The daemon never runs it.

    packaging/make-alert-files.py            # rewrite both files next to this script
    packaging/make-alert-files.py --check    # exit 1 when a file differs from what it would write
    packaging/make-alert-files.py --out DIR  # write into DIR instead
"""

import argparse
import os
import sys

# UPS alarm names, indexed by alarm number (0..229).
ALARM_NAMES = [
    "Inverter AC over voltage",  # 0
    "Inverter AC under voltage",  # 1
    "Inverter over or under freq",  # 2
    "Bypass AC over voltage",  # 3
    "Bypass AC under voltage",  # 4
    "Bypass over or under freq",  # 5
    "Input AC over voltage",  # 6
    "Input AC under voltage",  # 7
    "Input under or over freq",  # 8
    "Output over voltage",  # 9
    "Output under voltage",  # 10
    "Output under or over freq",  # 11
    "Remote emergency pwr off",  # 12
    "Remote go to bypass",  # 13
    "Building alarm 6",  # 14
    "Building alarm 5",  # 15
    "Building alarm 4",  # 16
    "Building alarm 3",  # 17
    "Building alarm 2",  # 18
    "Building alarm 1",  # 19
    "Static switch over temp",  # 20
    "Charger over temp",  # 21
    "Charger logic pwr fail",  # 22
    "Charger over voltage or current",  # 23
    "Inverter over temp",  # 24
    "Output overload",  # 25
    "Rectifier input over current",  # 26
    "Inverter output over current",  # 27
    "DC link over voltage",  # 28
    "DC link under voltage",  # 29
    "Rectifier failed",  # 30
    "Inverter fault",  # 31
    "Battery connector fail",  # 32
    "Bypass breaker fail",  # 33
    "Charger fail",  # 34
    "Ramp up failed",  # 35
    "Static switch failed",  # 36
    "Analog AD ref fail",  # 37
    "Bypass uncalibrated",  # 38
    "Rectifier uncalibrated",  # 39
    "Output uncalibrated",  # 40
    "Inverter uncalibrated",  # 41
    "DC volt uncalibrated",  # 42
    "Output current uncalibrated",  # 43
    "Rectifier current uncalibrated",  # 44
    "Battery current uncalibrated",  # 45
    "Inverter on off stat fail",  # 46
    "Battery current limit",  # 47
    "Inverter startup fail",  # 48
    "Analog board AD stat fail",  # 49
    "Output current over 100",  # 50
    "Battery ground fault",  # 51
    "Waiting for charger sync",  # 52
    "NV RAM fail",  # 53
    "Analog board AD timeout",  # 54
    "Shutdown imminent",  # 55
    "Battery low",  # 56
    "Utility fail",  # 57
    "Output short circuit",  # 58
    "Utility not present",  # 59
    "Full time charging",  # 60
    "Fast bypass command",  # 61
    "AD error",  # 62
    "Internal com fail",  # 63
    "Rectifier selftest fail",  # 64
    "Rectifier EEPROM fail",  # 65
    "Rectifier EPROM fail",  # 66
    "Input line voltage loss",  # 67
    "Battery DC over voltage",  # 68
    "Power supply over temp",  # 69
    "Power supply fail",  # 70
    "Power supply 5v fail",  # 71
    "Power supply 12v fail",  # 72
    "Heatsink over temp",  # 73
    "Heatsink temp sensor fail",  # 74
    "Rectifier current over 125",  # 75
    "Rectifier fault interrupt fail",  # 76
    "Rectifier power capacitor fail",  # 77
    "Inverter program stack error",  # 78
    "Inverter board selftest fail",  # 79
    "Inverter AD selftest fail",  # 80
    "Inverter RAM selftest fail",  # 81
    "NV memory checksum fail",  # 82
    "Program checksum fail",  # 83
    "Inverter CPU selftest fail",  # 84
    "Network not responding",  # 85
    "Front panel selftest fail",  # 86
    "Node EEPROM verification error",  # 87
    "Output AC over volt test fail",  # 88
    "Output DC over voltage",  # 89
    "Input phase rotation error",  # 90
    "Inverter ramp up test failed",  # 91
    "Inverter off command",  # 92
    "Inverter on command",  # 93
    "To bypass command",  # 94
    "From bypass command",  # 95
    "Auto mode command",  # 96
    "Emergency shutdown command",  # 97
    "Setup switch open",  # 98
    "Inverter over volt int",  # 99
    "Inverter under volt int",  # 100
    "Absolute DCOV ACOV",  # 101
    "Phase a current limit",  # 102
    "Phase b current limit",  # 103
    "Phase c current limit",  # 104
    "Bypass not available",  # 105
    "Rectifier breaker open",  # 106
    "Battery contactor open",  # 107
    "Inverter contactor open",  # 108
    "Bypass breaker open",  # 109
    "INV board ACOV int test fail",  # 110
    "Inverter over temp trip",  # 111
    "INV board ACUV int test fail",  # 112
    "Inverter voltage feedback error",  # 113
    "DC under voltage timeout",  # 114
    "AC under voltage timeout",  # 115
    "DC under voltage while charge",  # 116
    "Inverter voltage bias error",  # 117
    "Rectifier phase rotation",  # 118
    "Bypass phase rotation",  # 119
    "System interface board fail",  # 120
    "Parallel board fail",  # 121
    "Lost load sharing phase a",  # 122
    "Lost load sharing phase b",  # 123
    "Lost load sharing phase c",  # 124
    "DC over voltage timeout",  # 125
    "Battery totally discharged",  # 126
    "Inverter phase bias error",  # 127
    "Inverter voltage bias error 2",  # 128
    "DC link bleed complete",  # 129
    "Large charger input current",  # 130
    "INV volt too low for ramp level",  # 131
    "Loss of redundancy",  # 132
    "Loss of sync bus",  # 133
    "Rectifier breaker shunt trip",  # 134
    "Loss of charger sync",  # 135
    "Inverter low level test timeout",  # 136
    "Output breaker open",  # 137
    "Control power on",  # 138
    "Inverter on",  # 139
    "Charger on",  # 140
    "Bypass on",  # 141
    "Bypass power loss",  # 142
    "On manual bypass",  # 143
    "Bypass manual turn off",  # 144
    "Inverter bleeding DC link volt",  # 145
    "CPU ISR error",  # 146
    "System ISR restart",  # 147
    "Parallel DC",  # 148
    "Battery needs service",  # 149
    "Battery charging",  # 150
    "Battery not charged",  # 151
    "Disabled battery time",  # 152
    "Series 7000 enable",  # 153
    "Other UPS on",  # 154
    "Parallel inverter",  # 155
    "UPS in parallel",  # 156
    "Output breaker relay fail",  # 157
    "Control power off",  # 158
    "Level 2 overload phase a",  # 159
    "Level 2 overload phase b",  # 160
    "Level 2 overload phase c",  # 161
    "Level 3 overload phase a",  # 162
    "Level 3 overload phase b",  # 163
    "Level 3 overload phase c",  # 164
    "Level 4 overload phase a",  # 165
    "Level 4 overload phase b",  # 166
    "Level 4 overload phase c",  # 167
    "UPS on battery",  # 168
    "UPS on bypass",  # 169
    "Load dumped",  # 170
    "Load on inverter",  # 171
    "UPS on command",  # 172
    "UPS off command",  # 173
    "Low battery shutdown",  # 174
    "Auto on enabled",  # 175
    "Software incompatibility detected",  # 176
    "Inverter temp sensor failed",  # 177
    "DC start occurred",  # 178
    "In parallel operation",  # 179
    "Syncing to bypass",  # 180
    "Ramping UPS up",  # 181
    "Inverter on delay",  # 182
    "Charger on delay",  # 183
    "Waiting for util input",  # 184
    "Close bypass breaker",  # 185
    "Temporary bypass operation",  # 186
    "Syncing to output",  # 187
    "Bypass failure",  # 188
    "Auto off command executed",  # 189
    "Auto on command executed",  # 190
    "Battery test failed",  # 191
    "Fuse fail",  # 192
    "Fan fail",  # 193
    "Site wiring fault",  # 194
    "Backfeed contactor fail",  # 195
    "On buck",  # 196
    "On boost",  # 197
    "On double boost",  # 198
    "Batteries disconnected",  # 199
    "UPS cabinet over temp",  # 200
    "Transformer over temp",  # 201
    "Ambient under temp",  # 202
    "Ambient over temp",  # 203
    "Cabinet door open",  # 204
    "Cabinet door open volt present",  # 205
    "Auto shutdown pending",  # 206
    "Tap switching relay pending",  # 207
    "Unable to charge batteries",  # 208
    "Startup failure check EPO",  # 209
    "Automatic startup pending",  # 210
    "Modem failed",  # 211
    "Incoming modem call started",  # 212
    "Outgoing modem call started",  # 213
    "Modem connection established",  # 214
    "Modem call completed success",  # 215
    "Modem call completed fail",  # 216
    "Input breaker fail",  # 217
    "System init in progress",  # 218
    "Autocalibration fail",  # 219
    "Selective trip of module",  # 220
    "Inverter output failure",  # 221
    "Abnormal output volt at startup",  # 222
    "Rectifier over temp",  # 223
    "Config error",  # 224
    "Redundancy loss due to overload",  # 225
    "On alternate AC source",  # 226
    "In high efficiency mode",  # 227
    "System notice active",  # 228
    "System alarm active",  # 229
]

# Alarms whose set and clear codes do not follow the rule set = 300 + alarm,
# clear = 600 + alarm: alarm -> (set code, clear code). Alarm 228 clears with
# 829, the same code as alarm 229.
IRREGULAR_CODES = {
    0: (48, 49), 1: (52, 53), 6: (70, 71), 9: (138, 139), 10: (140, 141),
    12: (78, 79), 20: (66, 67), 21: (82, 83), 24: (50, 51), 25: (58, 59),
    26: (110, 111), 27: (112, 113), 28: (30, 31), 29: (76, 77), 30: (100, 101),
    31: (86, 87), 33: (32, 33), 34: (114, 115), 36: (102, 103), 50: (116, 117),
    55: (118, 119), 56: (16, 17), 58: (142, 143), 59: (14, 15), 63: (72, 73),
    92: (54, 55), 106: (62, 63), 107: (26, 27), 108: (46, 47), 121: (96, 97),
    126: (28, 29), 149: (36, 37), 169: (18, 19), 178: (122, 123), 191: (124, 125),
    192: (126, 127), 193: (128, 129), 194: (98, 99), 195: (22, 23), 199: (20, 21),
    200: (38, 39), 201: (130, 131), 205: (132, 133), 206: (134, 135), 207: (136, 137),
    228: (528, 829),
}


def alarm_codes(alarm):
    """The (set, clear) message numbers of an alarm."""
    return IRREGULAR_CODES.get(alarm, (300 + alarm, 600 + alarm))


# Each variant: header lines, broadcast texts, event-log texts, and how an
# alarm's set and clear texts are made from its name. A number that is both
# an event-log code and an alarm code (14 and 357) takes the event-log text.
# Broadcast texts go through the shell ("wall <text>"): letters, digits,
# blanks and . , : - only, plus the placeholders.
VARIANTS = {
    "alert.rc": {
        "header": [
            "Kestrava message file: operator texts by message number.",
            "",
            "Broadcasts to logged-in users (0, 1, 2, 204, 206) are sent with wall through",
            "the shell: use only letters, digits, blanks and . , : - in them.",
            "$MACHINE becomes this host's name and $MINUTES the minutes left, each at its",
            "first occurrence. Only 0 and 204 may use $MINUTES; 204 and 206 must not use",
            "$MACHINE (their broadcasts would show it as it stands).",
            "Every text is also the event-log line of its number; alarm texts are only logged.",
            "alert3so.rc holds the same numbers in a terse, keyword-first wording.",
            "Generated by make-alert-files.py: change the wording there and rerun it.",
        ],
        "broadcast": [
            ("0", "Power failure: $MACHINE will shut down in $MINUTES minutes. Save your work and log off."),
            ("1", "Power failure: $MACHINE will shut down in 1 minute. Log off now."),
            ("2", "Power has been restored. The shutdown of $MACHINE is cancelled."),
            ("204", "Scheduled shutdown: this computer will shut down in $MINUTES minutes. Save your work and log off."),
            ("206", "The scheduled shutdown is cancelled."),
        ],
        "log": [
            ("3", "Host shutdown started."),
            ("4", "Communication with the controller lost."),
            ("5", "Communication with the controller established."),
            ("6", "Kestrava started."),
            ("7", "Kestrava stopping."),
            ("9", "The controller restarted its UPS monitoring."),
            ("10", "UPS communication error."),
            ("11", "UPS communication established."),
            ("14", "Utility power not present."),
            ("200", "The controller ended its monitoring (application end received)."),
            ("208", "Running the host shutdown command."),
            ("217", "Waiting for the other controllers."),
            ("218", "Applications ended."),
            ("234", "UPS output switched off."),
            ("235", "UPS output switched on."),
            ("236", "UPS output is off."),
            ("237", "UPS output is on."),
            ("265", "Started with deferred set-up."),
            ("292", "The controller's host name could not be resolved."),
            ("357", "Utility power failure."),
            ("1000", "Utility power failure (within wink time)."),
            ("1001", "Utility power failure cleared (within wink time)."),
            ("1002", "Utility power not present (within wink time)."),
            ("1003", "Utility power restored (within wink time)."),
        ],
        "alarm_set": "{}.",
        "alarm_clear": "{} cleared.",
        "shared_829": "System notice or system alarm cleared.",
    },
    "alert3so.rc": {
        "header": [
            "Kestrava message file, terse variant: the numbers of alert.rc, each text one",
            "keyword and a short phrase (DAEMON, UPS, POWER, OUTPUT, SHUTDOWN, SCHEDULE,",
            "CONTROLLER, ALARM, CLEAR), for log scanners, pagers and small terminals.",
            "The daemon switches to this file when message-file variant 3 is selected; to",
            "use it from the start, copy it over alert.rc.",
            "Broadcasts (0, 1, 2, 204, 206) go through the shell: letters, digits, blanks",
            "and . , : - only. $MACHINE is this host's name, $MINUTES the minutes left.",
            "Generated by make-alert-files.py: change the wording there and rerun it.",
        ],
        "broadcast": [
            ("0", "UPS POWER FAIL: $MACHINE shuts down in $MINUTES min."),
            ("1", "UPS POWER FAIL: $MACHINE shuts down in 1 min."),
            ("2", "UPS POWER OK: shutdown of $MACHINE cancelled."),
            ("204", "SCHEDULE: shutdown in $MINUTES min."),
            ("206", "SCHEDULE: shutdown cancelled."),
        ],
        "log": [
            ("3", "SHUTDOWN: host shutdown started"),
            ("4", "CONTROLLER: communication lost"),
            ("5", "CONTROLLER: communication established"),
            ("6", "DAEMON: started"),
            ("7", "DAEMON: stopping"),
            ("9", "CONTROLLER: UPS monitoring restarted"),
            ("10", "UPS: communication error"),
            ("11", "UPS: communication established"),
            ("14", "POWER: utility not present"),
            ("200", "CONTROLLER: application end"),
            ("208", "SHUTDOWN: running shutdown command"),
            ("217", "SHUTDOWN: waiting for other controllers"),
            ("218", "SHUTDOWN: applications ended"),
            ("234", "OUTPUT: switched off"),
            ("235", "OUTPUT: switched on"),
            ("236", "OUTPUT: off"),
            ("237", "OUTPUT: on"),
            ("265", "DAEMON: started, set-up deferred"),
            ("292", "CONTROLLER: host name not resolved"),
            ("357", "POWER: utility failure"),
            ("1000", "POWER: utility failure, within wink time"),
            ("1001", "POWER: utility failure cleared, within wink time"),
            ("1002", "POWER: utility not present, within wink time"),
            ("1003", "POWER: utility restored, within wink time"),
        ],
        "alarm_set": "ALARM: {}",
        "alarm_clear": "CLEAR: {}",
        "shared_829": "CLEAR: System notice or system alarm",
    },
}


def render(variant):
    """The text of one message file."""
    out = []
    texts = {}

    def put(number, text):
        if number in texts:
            raise SystemExit("message %s given twice" % number)
        texts[number] = text
        out.append("%s=%s" % (number, text))

    out.extend(("# " + line).rstrip() for line in variant["header"])
    out.append("")
    out.append("# ---- Broadcasts to logged-in users (also logged) ----")
    for number, text in variant["broadcast"]:
        put(number, text)
    out.append("")
    out.append("# ---- Event log ----")
    for number, text in variant["log"]:
        put(number, text)
    out.append("")
    out.append("# ---- UPS alarms: set text, then clear text ----")
    for alarm, name in enumerate(ALARM_NAMES):
        set_code, clear_code = alarm_codes(alarm)
        out.append("# Alarm %d: %s" % (alarm, name))
        if str(set_code) in texts:
            out.append("# (set code %d: event-log text above)" % set_code)
        else:
            put(str(set_code), variant["alarm_set"].format(name))
        if alarm == 228:
            out.append("# (clear code 829 is shared with alarm 229, below)")
        elif clear_code == 829:
            put("829", variant["shared_829"])
        else:
            put(str(clear_code), variant["alarm_clear"].format(name))
    return "\n".join(out) + "\n"


def main():
    parser = argparse.ArgumentParser(description="Write Kestrava's message files alert.rc and alert3so.rc.")
    parser.add_argument("--out", default=os.path.dirname(os.path.abspath(__file__)),
                        help="directory to write into (default: the directory of this script)")
    parser.add_argument("--check", action="store_true",
                        help="write nothing; exit 1 when a file in --out differs from what would be written")
    args = parser.parse_args()
    if len(ALARM_NAMES) != 230:
        raise SystemExit("alarm name table has %d rows, expected 230" % len(ALARM_NAMES))

    stale = []
    for file_name, variant in VARIANTS.items():
        path = os.path.join(args.out, file_name)
        text = render(variant)
        if args.check:
            try:
                with open(path, encoding="utf-8") as f:
                    if f.read() != text:
                        stale.append(path)
            except OSError:
                stale.append(path)
        else:
            with open(path, "w", encoding="utf-8") as f:
                f.write(text)
    if stale:
        print("out of date: " + ", ".join(stale), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
