# Built-in virtual Mac: MacBookPro18,2 (16-inch, 2021, M1 Max), Apple silicon.
# Two fans with mode keys; the test key Ftst must be 1 before mode writes are honoured.
# Every temperature, fan, power, voltage and current key is an IEEE float (flt). Fans stop
# at idle (F0Ac 0). Attribute bytes follow the T2 pattern (not documented for this class).

model MacBookPro18,2

# Physics: an M1 Max (ten CPU cores, 32 GPU cores). Little power at idle, where the fans
# stop; the SoC runs hotter than an Intel part before it sheds power.
physics cpu-idle-power 0.8
physics cpu-max-power 38
physics gpu-idle-power 0.3
physics gpu-max-power 52
physics board-power 4.5
physics cpu-throttle 105
physics cpu-capacity 12
physics gpu-capacity 14
physics heatsink-capacity 80
physics cpu-heatsink 2.3
physics gpu-heatsink 2.3
physics airflow 0.16
physics sensor-noise 0.3
physics cpu-load 0.03
physics gpu-load 0.01
physics dc-voltage 20.2

# Firmware: fans stop below 52 degC and start above 65 degC; mode writes are refused for
# the first 20 tries after Ftst is set to 1.
firmware fan-curve-low 65
firmware fan-curve-high 100
firmware fan-stop 52
firmware fan-start 65
firmware unlock-refusals 20

# Battery: 100 Wh, three cells; the dictionary reports capacities in percent, as Apple
# silicon machines do (the raw mAh values are in AppleRawCurrentCapacity/MaxCapacity).
battery cells 3
battery charge-current 4000
battery percent-capacity 1

# Temperature-sensor services (published outside the SMC), each on a thermal node.
sensor "pACC MTR Temp Sensor0" cpu +1.1
sensor "pACC MTR Temp Sensor1" cpu +0.4
sensor "pACC MTR Temp Sensor2" cpu -0.3
sensor "pACC MTR Temp Sensor3" cpu +0.8
sensor "pACC MTR Temp Sensor4" cpu -0.6
sensor "pACC MTR Temp Sensor5" cpu +0.2
sensor "pACC MTR Temp Sensor7" cpu +1.4
sensor "pACC MTR Temp Sensor8" cpu -0.1
sensor "pACC MTR Temp Sensor9" cpu +0.6
sensor "eACC MTR Temp Sensor0" cpu -4.2
sensor "eACC MTR Temp Sensor1" cpu -3.8
sensor "eACC MTR Temp Sensor3" cpu -4.5
sensor "GPU MTR Temp Sensor1" gpu +0.5
sensor "GPU MTR Temp Sensor2" gpu -0.4
sensor "GPU MTR Temp Sensor4" gpu +0.9
sensor "GPU MTR Temp Sensor5" gpu -0.2
sensor "SOC MTR Temp Sensor0" proximity +2
sensor "SOC MTR Temp Sensor1" proximity +1.5
sensor "SOC MTR Temp Sensor2" proximity +1
sensor "PMGR SOC Die Temp Sensor0" proximity +0.5
sensor "PMGR SOC Die Temp Sensor1" proximity +0.2
sensor "PMGR SOC Die Temp Sensor2" proximity
sensor "ANE MTR Temp Sensor1" proximity -1
sensor "ISP MTR Temp Sensor5" proximity -1.5
sensor "PMU tdie1" board +6
sensor "PMU tdie2" board +5.5
sensor "PMU tdie4" board +5
sensor "PMU tdie5" board +6.5
sensor "PMU tdie6" board +4.8
sensor "PMU tdie7" board +5.2
sensor "PMU tdie8" board +5.9
sensor "PMU tdev1" board +2
sensor "PMU tdev2" board +1.4
sensor "PMU tdev3" board +2.6
sensor "PMU tdev4" board +1.1
sensor "PMU tdev5" board +0.6
sensor "PMU tdev6" board +1.8
sensor "PMU tdev7" board +0.9
sensor "PMU tdev8" board +1.5
sensor "PMU2 tdie1" board +4
sensor "PMU2 tdev1" board +1
sensor "NAND CH0 temp" board +3
sensor "gas gauge battery" battery

# Identity and system keys
key $Num   ui8     1 0xd0 1
key RPlt   ch8*    8 0x80 "j316c"
key RBr    ch8*    8 0x80 "j316"
key REV    {rev    6 0x80 <03 00 0a 00 00 00>
key AC-W   si8     1 0x80 96
key ACIN   flag    1 0x80 1
key ACID   ch8*    8 0x80 <0c 00 8c 00 00 00 00 00>
key ACEN   ui8     1 0x80 1
key BATP   flag    1 0x80 1
key BNum   ui8     1 0x80 1
key BSIn   ui8     1 0x80 7
key B0AV   ui16    2 0x80 12960
key B0AC   si16    2 0x80 0
key B0CT   ui16    2 0x80 187
key B0FC   ui16    2 0x80 8693
key B0RM   ui16    2 0x80 8693
key B0DC   ui16    2 0x80 8693
key BC1V   ui16    2 0x80 4320
key BC2V   ui16    2 0x80 4320
key BC3V   ui16    2 0x80 4321
key CLKT   ui32    4 0xc0 71000
key MSLD   ui8     1 0x80 0
key MSAc   ui8     1 0xc0 0
key MSAf   ui8     1 0xc0 0
key MSAg   ui8     1 0xc0 0
key MSAi   ui8     1 0xc0 0
key MSPS   ui8     1 0xc0 0
key MSSS   ui8     1 0xc0 0
key MSSW   ui8     1 0xc0 0
key MSWR   ui8     1 0xc0 0
key LSOF   ui8     1 0xc0 1
key LSON   ui8     1 0xc0 1
key NTOK   ui8     1 0xc0 1
key zETM   flag    1 0x80 0

# Fans: mode keys, the test key, flt speeds; 0 rpm at idle
key FNum   ui8     1 0x80 2
key Ftst   ui8     1 0xd4 0
key F0Ac   flt     4 0x85 0.0
key F0Md   ui8     1 0xd4 0
key F0Mn   flt     4 0xc4 1499.0
key F0Mx   flt     4 0x84 5348.0
key F0Sf   flt     4 0x84 0.0
key F0Tg   flt     4 0xd4 0.0
key F0Dc   flt     4 0x84 0.0
key F1Ac   flt     4 0x85 0.0
key F1Md   ui8     1 0xd4 0
key F1Mn   flt     4 0xc4 1499.0
key F1Mx   flt     4 0x84 5776.0
key F1Sf   flt     4 0x84 0.0
key F1Tg   flt     4 0xd4 0.0
key F1Dc   flt     4 0x84 0.0

# Temperatures (flt): P-cores Tp.., E-cores Te.., GPU Tg.., battery, Wi-Fi, NAND
key Tp01   flt     4 0xc4 44.3
key Tp05   flt     4 0xc4 45.1
key Tp09   flt     4 0xc4 43.9
key Tp0D   flt     4 0xc4 44.8
key Tp0H   flt     4 0xc4 42.6
key Tp0L   flt     4 0xc4 43.0
key Tp0P   flt     4 0xc4 44.1
key Tp0T   flt     4 0xc4 45.6
key Tp0X   flt     4 0xc4 43.3
key Tp0b   flt     4 0xc4 44.0
key Te05   flt     4 0xc4 39.8
key Te0L   flt     4 0xc4 40.1
key Te0P   flt     4 0xc4 39.5
key Te0S   flt     4 0xc4 40.3
key Tg05   flt     4 0xc4 38.6
key Tg0D   flt     4 0xc4 38.9
key Tg0L   flt     4 0xc4 38.1
key Tg0T   flt     4 0xc4 38.4
key Tg0f   flt     4 0xc4 37.9
key Tg0j   flt     4 0xc4 38.2
key TB0T   flt     4 0xc4 30.2
key TB1T   flt     4 0xc4 30.1
key TB2T   flt     4 0xc4 30.4
key TW0P   flt     4 0xc4 35.2
key TH0x   flt     4 0xc4 33.8
key TH0a   flt     4 0xc4 33.1
key Ts0P   flt     4 0xc4 31.6
key Ts1P   flt     4 0xc4 31.2
key TaLP   flt     4 0xc4 29.8
key TaRF   flt     4 0xc4 30.3
key TPD0   flt     4 0xc4 36.0
key TPD1   flt     4 0xc4 35.7
key TR0Z   flt     4 0xc4 34.0
key TR1d   flt     4 0xc4 33.2
key TVA0   flt     4 0xc4 32.0
key TVD0   flt     4 0xc4 32.5
key TMVR   flt     4 0xc4 34.4
key TPMP   flt     4 0xc4 37.1
key TPSP   flt     4 0xc4 36.2
key TCMb   flt     4 0xc4 -127.0

# Power (W), voltages (V), currents (A), all flt
key PSTR   flt     4 0xc4 9.8
key PDTR   flt     4 0xc4 14.2
key PHPC   flt     4 0xc4 3.1
key PPBR   flt     4 0xc4 0.0
key PCPT   flt     4 0xc4 2.2
key PCPC   flt     4 0xc4 1.6
key PCPG   flt     4 0xc4 0.4
key PG0R   flt     4 0xc4 0.35
key PMVC   flt     4 0xc4 0.8
key PH0C   flt     4 0xc4 0.1
key PZ0E   flt     4 0xc4 0.0
key PZ1E   flt     4 0xc4 0.0
key PDBR   flt     4 0xc4 14.0
key PPSR   flt     4 0xc4 0.0
key VD0R   flt     4 0xc4 20.2
key VP0R   flt     4 0xc4 12.9
key VBAT   flt     4 0xc4 12.96
key VC0C   flt     4 0xc4 0.72
key VG0C   flt     4 0xc4 0.68
key ID0R   flt     4 0xc4 1.05
key IPBR   flt     4 0xc4 0.0
key IC0R   flt     4 0xc4 0.3
key IBAC   flt     4 0xc4 0.0
key IG0R   flt     4 0xc4 0.05
key IM0C   flt     4 0xc4 0.11
key PCPL   ui8     1 0xc0 0

# More temperatures (flt): further P-core and GPU sensors, SoC fabric, memory, airflow
key Tp0f   flt     4 0xc4 43.5
key Tp0j   flt     4 0xc4 44.1
key Tp0n   flt     4 0xc4 44.7
key Tp0r   flt     4 0xc4 45.3
key Tp0v   flt     4 0xc4 43.5
key Tp0z   flt     4 0xc4 44.1
key Tp1h   flt     4 0xc4 44.7
key Tp1l   flt     4 0xc4 45.3
key Tp1p   flt     4 0xc4 43.5
key Tp1t   flt     4 0xc4 44.1
key Tg0G   flt     4 0xc4 37.8
key Tg0H   flt     4 0xc4 38.2
key Tg0K   flt     4 0xc4 38.6
key Tg0U   flt     4 0xc4 37.8
key Tg0X   flt     4 0xc4 38.2
key Tg0d   flt     4 0xc4 38.6
key Tg0g   flt     4 0xc4 37.8
key Tg0k   flt     4 0xc4 38.2
key Tg0n   flt     4 0xc4 38.6
key Tg0r   flt     4 0xc4 37.8
key Tf04   flt     4 0xc4 38.0
key Tf09   flt     4 0xc4 38.5
key Tf0A   flt     4 0xc4 39.0
key Tf0B   flt     4 0xc4 39.5
key Tf0D   flt     4 0xc4 40.0
key Tf0E   flt     4 0xc4 38.0
key Tf44   flt     4 0xc4 38.5
key Tf49   flt     4 0xc4 39.0
key Tf4A   flt     4 0xc4 39.5
key Tf4B   flt     4 0xc4 40.0
key Tf4D   flt     4 0xc4 38.0
key Tf4E   flt     4 0xc4 38.5
key Tm02   flt     4 0xc4 36.0
key Tm06   flt     4 0xc4 36.5
key Tm08   flt     4 0xc4 37.0
key Tm09   flt     4 0xc4 36.0
key Tm0A   flt     4 0xc4 36.5
key Tm0B   flt     4 0xc4 37.0
key TaLT   flt     4 0xc4 30.1
key TaRT   flt     4 0xc4 30.4
key TaLW   flt     4 0xc4 31.0
key TaRW   flt     4 0xc4 31.2
key TH0b   flt     4 0xc4 33.4
key TH0c   flt     4 0xc4 -127.0
key TVD1   flt     4 0xc4 32.4
key TVMD   flt     4 0xc4 34.1
key TVS0   flt     4 0xc4 33.0
key TVS1   flt     4 0xc4 -127.0
key TR2d   flt     4 0xc4 33.4
key TR3d   flt     4 0xc4 -127.0
key TPD2   flt     4 0xc4 35.2
key TPD3   flt     4 0xc4 35.0
key TPDX   flt     4 0xc4 36.4
key TPMT   flt     4 0xc4 36.6
key TCHP   flt     4 0xc4 36.5
key TDBP   flt     4 0xc4 34.9
key TDEL   flt     4 0xc4 33.0
key TDER   flt     4 0xc4 33.1
key TDTC   flt     4 0xc4 34.2
key TDTP   flt     4 0xc4 35.0

# More power, voltage and current keys (flt)
key PPMC   flt     4 0xc4 0.5
key PPMT   flt     4 0xc4 0.6
key PMCP   flt     4 0xc4 0.3
key PSCP   flt     4 0xc4 0.9
key PDBP   flt     4 0xc4 13.8
key PGTR   flt     4 0xc4 0.4
key PANE   flt     4 0xc4 0.0
key PISP   flt     4 0xc4 0.0
key PDSP   flt     4 0xc4 0.2
key PNVM   flt     4 0xc4 0.3
key PWFI   flt     4 0xc4 0.2
key PUSB   flt     4 0xc4 0.0
key PTHC   flt     4 0xc4 0.1
key VD1R   flt     4 0xc4 20.1
key VD2R   flt     4 0xc4 0.0
key VR3R   flt     4 0xc4 3.3
key VR5R   flt     4 0xc4 5.0
key VPMR   flt     4 0xc4 0.8
key ID1R   flt     4 0xc4 0.0
key IDBR   flt     4 0xc4 0.68
key IR3R   flt     4 0xc4 0.1
key IR5R   flt     4 0xc4 0.05
key IPMR   flt     4 0xc4 0.2

# Charger, SoC firmware and system keys that discovery must skip
key CHBI   ui32    4 0x80 0
key CHBV   ui32    4 0x80 13050
key CHCC   ui8     1 0x80 1
key CHCE   ui8     1 0x80 0
key CHCR   ui8     1 0x80 1
key CHDS   ui8     1 0x80 0
key CHIE   hex_    1 0xc0 0
key CHIS   ui32    4 0x80 0
key CHKL   ui8     1 0x80 0
key CHLC   ui8     1 0x80 1
key CHNC   ui8     1 0x80 3
key CHSC   ui8     1 0x80 0
key CHTE   ui32    4 0x80 0
key CHWA   ui8     1 0xc0 0
key CH0B   hex_    1 0x80 0
key CH0C   hex_    1 0x80 0
key CH0I   hex_    1 0xc0 0
key CH0J   hex_    1 0xc0 0
key CH0K   hex_    1 0xc0 0
key CH0R   hex_    2 0x80 0
key AC-B   ui8     1 0x80 1
key AC-C   ui8     1 0x80 0
key AC-E   ui8     1 0x80 0
key AC-N   ui8     1 0x80 1
key AC-P   ui8     1 0x80 1
key ACDI   ui16    2 0x80 0
key ACFP   flag    1 0x80 0
key ACSt   ui8     1 0x80 2
key ACSS   ui8     1 0x80 0
key ACVR   ui8     1 0x80 1
key BBAD   flag    1 0x80 0
key BBIN   ui8     1 0x80 1
key BEMB   flag    1 0x80 1
key BFCL   ui8     1 0xc0 100
key BHTL   ui8     1 0x80 0
key BLPS   ui8     1 0x80 0
key BSAC   ui16    2 0x80 0
key BSDC   ui8     1 0x80 0
key BRSC   ui16    2 0x80 100
key B0TF   ui16    2 0x80 65535
key B0St   ui16    2 0x80 224
key B0Ti   ui16    2 0x80 0
key B0CI   ui8     1 0x80 0
key B0PS   ui16    2 0x80 0
key B0TE   ui16    2 0x80 65535
key D0BD   ui8     1 0x80 0
key D0IR   ui16    2 0x80 0
key D0VR   ui16    2 0x80 0
key D1BD   ui8     1 0x80 0
key D2BD   ui8     1 0x80 0
key DPLM   ui8     1 0x80 0
key DUSB   ui8     1 0x80 0
key EFBM   ui8     1 0x80 0
key EFBS   ui8     1 0x80 0
key EPCI   ui32    4 0x80 100663296
key HBKP   ui8     1 0xc0 0
key HDBS   ui8     1 0x80 0
key LDKN   ui8     1 0x80 2
key LDSP   flag    1 0x80 0
key MBSe   hex_    1 0x80 0
key MBSw   ui8     1 0x80 0
key MSFW   ui8     2 0x80 <02 00>
key MSPC   ui8     1 0x80 0
key MSPP   ui8     1 0x80 0
key MSTc   ui8     1 0x80 0
key MSTf   ui8     1 0x80 0
key MSTi   ui8     1 0x80 0
key MSWT   ui8     1 0x80 0
key NESN   hex_    1 0xc0 0
key OSK0   ch8*   32 0x80 "ourhardworkbythesewordsguardedpl"
key OSK1   ch8*   32 0x80 "easedontsteal(c)AppleComputerInc"
key PDEC   ui8     1 0x80 0
key PDSR   ui8     1 0x80 0
key RESE   ui8     1 0x80 0
key RGEN   ui8     1 0x80 3
key RMde   char    1 0x80 "A"
key RSvn   ui8     1 0x80 2
key RVBF   {rev    6 0x80 <03 00 0a 00 00 00>
key RVUF   {rev    6 0x80 <03 00 0a 00 00 00>
key SBAR   ui8     1 0x80 0
key SBFL   ui8     1 0x80 0
key SPHS   ui8     1 0x80 0
key SPHT   ui8     1 0x80 0
key UPRC   ui8     1 0x80 0
key UPRS   ui8     1 0x80 0
key VBUS   ui8     1 0x80 1
key WKTP   ui8     1 0xc0 0
key WOWL   ui8     1 0xc0 0
key zDBG   ui8     1 0xc0 0
key zEBS   ui8     1 0x80 0
