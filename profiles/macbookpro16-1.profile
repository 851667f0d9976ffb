# Built-in virtual Mac: MacBookPro16,1 (16-inch, 2019), a T2 machine.
# Intel, two fans with per-fan mode keys F0Md/F1Md (0 automatic, 1 manual); no force mask,
# no fan descriptions; fan speeds and most power keys are IEEE floats (flt, little-endian);
# temperatures still sp78.

model MacBookPro16,1

# Physics: an eight-core i9 and a Radeon Pro 5500M; bigger heatsink and fans than the 2012
# machine. This snapshot was taken on battery.
physics cpu-idle-power 4
physics cpu-max-power 55
physics gpu-idle-power 2
physics gpu-max-power 40
physics board-power 7
physics heatsink-capacity 90
physics cpu-heatsink 2.2
physics airflow 0.23
physics cpu-load 0.05
physics dc-voltage 20

firmware fan-curve-low 58
firmware fan-curve-high 94

# Battery: 100 Wh, three cells, on battery power.
battery cells 3
battery charge-current 3000
battery external 0

# Identity, firmware and revision keys
key $Adr   ui32    4 0x80 768
key $Num   ui8     1 0xd0 1
key +LKS   flag    1 0xc0 1
key RPlt   ch8*    8 0x80 "j152f"
key RBr    ch8*    8 0x80 "j152"
key REV    {rev    6 0x80 <02 03 0f 00 00 26>
key RVBF   {rev    6 0x80 <02 03 0f 00 00 26>
key RVUF   {rev    6 0x80 <02 03 0f 00 00 26>
key RMde   char    1 0x80 "A"
key RSvn   ui8     1 0x80 1
key EPCI   ui32    4 0x80 12582912
key EPCA   ui32    4 0x80 268435456
key EPCV   ui16    2 0x80 259
key EPMA   ch8*    4 0x80 "ETA"
key EPMI   ui8     1 0x80 3
key EPUA   ui32    4 0x80 8192

# Power adapter and AC
key ACID   ch8*    8 0x80 <0a 00 55 04 00 00 00 00>
key ACIN   flag    1 0x80 0
key ACEN   ui8     1 0x80 1
key ACFP   flag    1 0x80 0
key ACIC   si8     1 0x80 0
key AC-W   si8     1 0x80 85
key ACCL   ui8     1 0xc0 0

# Ambient light sensor
key ALA0   {ala    6 0x80 <00 00 00 00 00 00>
key ALA1   {ala    6 0x80 <00 00 00 00 00 00>
key ALI0   {ali    2 0x80 <0a 01>
key ALI1   {ali    2 0x80 <0a 02>
key ALRV   ui16    2 0x80 1
key ALSL   ui16    2 0x80 14
key ALV0   {alv   10 0x80 <01 00 c8 00 a0 00 00 00 00 00>
key ALV1   {alv   10 0x80 <01 00 b4 00 9c 00 00 00 00 00>

# Battery (SMC side; the battery dictionary lives elsewhere)
key BATP   flag    1 0x80 1
key BBAD   flag    1 0x80 0
key BBIN   ui8     1 0x80 1
key BEMB   flag    1 0x80 1
key BNum   ui8     1 0x80 1
key BSIn   ui8     1 0x80 7
key BFCL   ui8     1 0xc0 100
key BHTL   ui8     1 0x80 0
key BLPS   ui8     1 0x80 0
key BRSC   ui16    2 0x80 62
key BSAC   ui16    2 0x80 0
key BSDC   ui8     1 0x80 0
key BC1V   ui16    2 0x80 3968
key BC2V   ui16    2 0x80 3969
key BC3V   ui16    2 0x80 3972
key B0AP   ui16    2 0x80 0
key B0Al   ui8     1 0x80 0
key B0CT   ui16    2 0x80 212
key B0DC   ui16    2 0x80 8790
key B0FC   ui16    2 0x80 8311
key B0RM   ui16    2 0x80 5153
key B0St   ui16    2 0x80 192
key B0TF   ui16    2 0x80 65535
key B0Ti   ui16    2 0x80 0

# Clock, wake, lid and system state
key CLKH   {clh    8 0x80 <00 00 70 80 00 01 19 40>
key CLKS   ui8     1 0x80 0
key CLKT   ui32    4 0xc0 50123
key CLWK   ui16    2 0xc0 0
key CRCA   ui32    4 0x80 1814796831
key CRCB   ui32    4 0x80 445529095
key DICT   flag    1 0x80 0
key HBKP   ui8     1 0xc0 0
key HDBS   ui8     1 0x80 0
key HDST   ui8     1 0x80 1
key KPPW   ui8     1 0xc0 0
key KPST   ui8     1 0x80 0
key LAcN   ui8     1 0x80 1
key LAKF   ui8     1 0xc0 0
key LAtN   ui8     1 0x80 1
key LCCN   ui8     1 0x80 0
key LCCQ   ui8     1 0x80 0
key LCFQ   ui8     1 0x80 0
key LCKA   ui8     1 0xc0 0
key LCSA   ui8     1 0xc0 0
key LCTN   ui8     1 0x80 0
key LCTQ   ui8     1 0x80 0
key LKSB   {lkb    2 0xc0 <00 00>
key LKSS   {lks    2 0x80 <00 00>
key LSCF   ui8     1 0xc0 0
key LSDD   ui8     1 0xc0 0
key LSDU   ui8     1 0xc0 0
key LSFD   ui8     1 0xc0 0
key LSFU   ui8     1 0xc0 0
key LSLB   ui8     1 0xc0 0
key LSLF   ui8     1 0xc0 0
key LSLN   ui8     1 0xc0 0
key LSOF   ui8     1 0xc0 1
key LSON   ui8     1 0xc0 1
key LSRB   ui8     1 0xc0 0
key LSSB   ui8     1 0xc0 0
key LSSE   ui8     1 0xc0 0
key LSSS   ui8     1 0xc0 0
key LSPV   {lso    7 0xc0 <00 00 00 00 00 00 00>
key LSSV   ui16    2 0xc0 0
key MSAc   ui16    2 0x80 0
key MSAf   ui16    2 0x80 0
key MSAg   ui16    2 0x80 0
key MSAi   ui16    2 0x80 0
key MSAm   ui8     1 0x80 0
key MSAr   ui16    2 0x80 0
key MSDI   ui8     1 0x80 0
key MSFW   ui8     2 0x80 <01 00>
key MSGA   ui8     1 0x80 0
key MSHS   ui16    2 0x80 0
key MSLD   ui8     1 0x80 0
key MSPS   ui16    2 0x80 3
key MSSD   si8     1 0xc0 3
key MSSP   si8     1 0x80 0
key MSSS   ui8     1 0x80 1
key MSSW   ui8     1 0xc0 0
key MSTM   ui8     1 0x80 0
key MSWR   ui8     1 0xc0 0
key NATJ   ui8     1 0x80 0
key NATi   ui16    2 0x80 0
key NTOK   ui8     1 0xc0 1
key ONMI   ui8     1 0xc0 0
key SBFC   ui8     1 0x80 0
key SBFL   ui8     1 0x80 0
key SBFU   ui8     1 0x80 0
key SBSC   ui8     1 0x80 0
key SBSE   ui8     1 0x80 0
key SBSL   ui8     1 0x80 0
key SPHS   ui8     1 0x80 0
key SPHT   ui8     1 0x80 0
key WKTP   ui8     1 0xc0 0
key zDBG   ui8     1 0xc0 0
key zEBS   ui8     1 0x80 0
key zETM   flag    1 0x80 0

# Fans: FNum and per-fan keys, speeds as flt
key FNum   ui8     1 0x80 2
key F0Ac   flt     4 0x85 1849.9
key F0Md   ui8     1 0xd0 0
key F0Mn   flt     4 0x84 1836.0
key F0Mx   flt     4 0x84 5297.4
key F0Sf   flt     4 0x84 1836.0
key F0Tg   flt     4 0xd4 1836.0
key F0Dc   flt     4 0x84 0.0
key F1Ac   flt     4 0x85 1708.3
key F1Md   ui8     1 0xd0 0
key F1Mn   flt     4 0x84 1700.0
key F1Mx   flt     4 0x84 4905.0
key F1Sf   flt     4 0x84 1700.0
key F1Tg   flt     4 0xd4 1700.0
key F1Dc   flt     4 0x84 0.0

# Temperatures (sp78)
key TA0V   sp78    2 0xc0 30.5
key TB0T   sp78    2 0xc0 32.8
key TB1T   sp78    2 0xc0 32.8
key TB2T   sp78    2 0xc0 31.9
key TC0P   sp78    2 0xc0 38.2
key TC0D   sp78    2 0xc0 40.0
key TC0E   sp78    2 0xc0 42.3
key TC0F   sp78    2 0xc0 40.9
key TC1C   sp78    2 0xc0 40.0
key TC2C   sp78    2 0xc0 41.0
key TC3C   sp78    2 0xc0 39.0
key TC4C   sp78    2 0xc0 40.0
key TC5C   sp78    2 0xc0 41.0
key TC6C   sp78    2 0xc0 39.0
key TC7C   sp78    2 0xc0 -127.0
key TC8C   sp78    2 0xc0 -127.0
key TCGC   sp78    2 0xc0 38.0
key TCSA   sp78    2 0xc0 39.0
key TCXC   sp78    2 0xc0 41.7
key TG0D   sp78    2 0xc0 37.8
key TG0P   sp78    2 0xc0 37.2
key TG0T   sp78    2 0xc0 36.9
key TGDD   sp78    2 0xc0 37.0
key TGVP   sp78    2 0xc0 36.5
key TH0a   sp78    2 0xc0 34.0
key TH0b   sp78    2 0xc0 34.5
key TH0x   sp78    2 0xc0 35.0
key TM0P   sp78    2 0xc0 35.4
key TPCD   sp78    2 0xc0 43.0
key TW0P   sp78    2 0xc0 36.6
key TaLC   sp78    2 0xc0 31.0
key TaRC   sp78    2 0xc0 30.5
key Th1H   sp78    2 0xc0 36.0
key Th2H   sp78    2 0xc0 35.0
key Ts0P   sp78    2 0xc0 33.0
key Ts1P   sp78    2 0xc0 32.0
key Ts0S   sp78    2 0xc0 33.5
key Ts1S   sp78    2 0xc0 32.5
key TTLD   sp78    2 0xc0 34.0
key TTRD   sp78    2 0xc0 33.5
key TCHP   ui8     1 0x80 0

# Power (W): flt on T2, with PCPC still sp87
key PSTR   flt     4 0xc4 6.95
key PPBR   flt     4 0xc4 6.78
key PDTR   flt     4 0xc4 0.0
key PHPC   flt     4 0xc4 1.89
key PC0R   flt     4 0xc4 1.75
key PCPT   flt     4 0xc4 0.98
key PCPG   flt     4 0xc4 0.11
key PG0R   flt     4 0xc4 0.42
key PGTR   flt     4 0xc4 0.4
key PM0R   flt     4 0xc4 0.33
key PMVC   flt     4 0xc4 0.31
key PH0C   flt     4 0xc4 0.05
key PZ0E   flt     4 0xc4 0.0
key PCPC   sp87    2 0xc0 0.703125
key PCPL   ui8     1 0xc0 60

# Voltages (V) and currents (A)
key VP0R   flt     4 0xc4 11.36
key VD0R   flt     4 0xc4 0.0
key VC0C   flt     4 0xc4 0.85
key VG0C   flt     4 0xc4 0.8
key VBAT   flt     4 0xc4 11.358
key IPBR   flt     4 0xc4 0.6
key IC0R   flt     4 0xc4 0.16
key ID0R   flt     4 0xc4 0.0
key IC0C   flt     4 0xc4 0.9
key IG0R   flt     4 0xc4 0.08
key IM0C   flt     4 0xc4 0.12
key IBAC   flt     4 0xc4 -0.612

# Battery keys
key B0AV   ui16    2 0x80 11358
key B0AC   si16    2 0x80 -612
