# Built-in virtual Mac: MacPro7,1 (Mac Pro, 2019), a T2 desktop.
# Intel Xeon W with two MPX GPU modules; four fans with per-fan mode keys (0 automatic,
# 1 manual): fan 0 500-1292 rpm, fans 1 to 3 500-2601 rpm. No battery, no lid, no
# adapter: a power supply feeds the 12 V rail. Speeds and power are flt, temperatures
# sp78. The Tp.. keys here are the power supply's, not CPU cores.

model MacPro7,1
# Physics: a 205 W 16-core Xeon and two GPU modules behind a large shared heat path; the
# fans move a lot of air even at their 500 rpm minimum.
physics ambient 22
physics cpu-idle-power 32
physics cpu-max-power 205
physics gpu-idle-power 24
physics gpu-max-power 210
physics board-power 65
physics cpu-capacity 60
physics gpu-capacity 80
physics proximity-capacity 120
physics heatsink-capacity 500
physics board-capacity 3000
physics cpu-heatsink 6
physics gpu-heatsink 6
physics cpu-proximity 1.5
physics proximity-board 2
physics heatsink-board 1
physics board-ambient 3
physics heatsink-ambient 1.5
physics airflow 1.7
physics fan-spin-up 2
physics fan-spin-down 6
physics cpu-load 0.05
physics gpu-load 0.02
physics dc-voltage 12.1

firmware fan-curve-low 50
firmware fan-curve-high 90

# The power supply's and the PCIe slots' sensors sit on the board, whatever their names.
bind Tp0C board +9
bind Tp1C board +7
bind Tp2C board +8
bind Te1P board +2
bind Te2P board +3
bind Te3P board +1
bind Te4P board +2.5
bind PG1R gpu-power x0.5
bind PG0R gpu-power x0.5

# Identity, firmware and revision keys
key $Adr   ui32    4 0x80 768
key $Num   ui8     1 0xd0 1
key +LKS   flag    1 0xc0 1
key RPlt   ch8*    8 0x80 "j160"
key RBr    ch8*    8 0x80 "j160"
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

# System state
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
key MSDI   ui8     1 0x80 0
key MSFW   ui8     2 0x80 <01 00>
key MSGA   ui8     1 0x80 0
key MSHS   ui16    2 0x80 0
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
key PSTS   ui8     1 0x80 1
key PSUV   ui16    2 0x80 12100
key PSUW   ui16    2 0x80 1400
key MPX0   ui8     1 0x80 1
key MPX1   ui8     1 0x80 1
key MPX2   ui8     1 0x80 0
key MPX3   ui8     1 0x80 0
key SLT0   ui8     1 0x80 1
key SLT1   ui8     1 0x80 1
key SLT2   ui8     1 0x80 0
key SLT3   ui8     1 0x80 0
key SLT4   ui8     1 0x80 1
key SLT5   ui8     1 0x80 0
key SLT6   ui8     1 0x80 0
key SLT7   ui8     1 0x80 0

# Fans: four, mode keys, flt speeds
key FNum   ui8     1 0x80 4
key F0Ac   flt     4 0x85 621.3
key F0Md   ui8     1 0xd0 0
key F0Mn   flt     4 0x84 500.0
key F0Mx   flt     4 0x84 1292.0
key F0Sf   flt     4 0x84 500.0
key F0Tg   flt     4 0xd4 621
key F0Dc   flt     4 0x84 0.0
key F1Ac   flt     4 0x85 712.8
key F1Md   ui8     1 0xd0 0
key F1Mn   flt     4 0x84 500.0
key F1Mx   flt     4 0x84 2601.0
key F1Sf   flt     4 0x84 500.0
key F1Tg   flt     4 0xd4 713
key F1Dc   flt     4 0x84 0.0
key F2Ac   flt     4 0x85 708.1
key F2Md   ui8     1 0xd0 0
key F2Mn   flt     4 0x84 500.0
key F2Mx   flt     4 0x84 2601.0
key F2Sf   flt     4 0x84 500.0
key F2Tg   flt     4 0xd4 708
key F2Dc   flt     4 0x84 0.0
key F3Ac   flt     4 0x85 715.6
key F3Md   ui8     1 0xd0 0
key F3Mn   flt     4 0x84 500.0
key F3Mx   flt     4 0x84 2601.0
key F3Sf   flt     4 0x84 500.0
key F3Tg   flt     4 0xd4 716
key F3Dc   flt     4 0x84 0.0

# Temperatures (sp78)
key TA0P   sp78    2 0xc0 24.5
key TA0V   sp78    2 0xc0 26.0
key TA1P   sp78    2 0xc0 25.0
key TC0P   sp78    2 0xc0 41.5
key TC0D   sp78    2 0xc0 45.0
key TC0E   sp78    2 0xc0 47.25
key TC0F   sp78    2 0xc0 45.5
key TC0H   sp78    2 0xc0 44.0
key TCSA   sp78    2 0xc0 42.0
key TCXC   sp78    2 0xc0 46.5
key TC0C   sp78    2 0xc0 43.0
key TC1C   sp78    2 0xc0 43.5
key TC2C   sp78    2 0xc0 44.0
key TC3C   sp78    2 0xc0 44.5
key TC4C   sp78    2 0xc0 45.0
key TC5C   sp78    2 0xc0 43.0
key TC6C   sp78    2 0xc0 43.5
key TC7C   sp78    2 0xc0 44.0
key TC8C   sp78    2 0xc0 44.5
key TC9C   sp78    2 0xc0 45.0
key TCAC   sp78    2 0xc0 43.0
key TCBC   sp78    2 0xc0 43.5
key TCCC   sp78    2 0xc0 44.0
key TCDC   sp78    2 0xc0 44.5
key TCEC   sp78    2 0xc0 45.0
key TCFC   sp78    2 0xc0 43.0
key TG0D   sp78    2 0xc0 40.0
key TG0H   sp78    2 0xc0 41.5
key TG0P   sp78    2 0xc0 38.5
key TG0T   sp78    2 0xc0 39.0
key TG1D   sp78    2 0xc0 39.5
key TG1H   sp78    2 0xc0 40.5
key TG1P   sp78    2 0xc0 38.0
key TG1T   sp78    2 0xc0 38.75
key TGDD   sp78    2 0xc0 39.0
key TM0S   sp78    2 0xc0 36.0
key TM1S   sp78    2 0xc0 36.5
key TM2S   sp78    2 0xc0 37.0
key TM3S   sp78    2 0xc0 37.5
key TM4S   sp78    2 0xc0 36.0
key TM5S   sp78    2 0xc0 36.5
key TM6S   sp78    2 0xc0 37.0
key TM7S   sp78    2 0xc0 37.5
key TM8S   sp78    2 0xc0 36.0
key TM9S   sp78    2 0xc0 36.5
key TMAS   sp78    2 0xc0 37.0
key TMBS   sp78    2 0xc0 37.5
key TM0P   sp78    2 0xc0 37.0
key TM1P   sp78    2 0xc0 37.5
key TM2P   sp78    2 0xc0 38.0
key TM3P   sp78    2 0xc0 37.0
key TM4P   sp78    2 0xc0 37.5
key TM5P   sp78    2 0xc0 38.0
key TH0a   sp78    2 0xc0 33.0
key TH0b   sp78    2 0xc0 33.5
key TH1a   sp78    2 0xc0 34.0
key TH1b   sp78    2 0xc0 34.25
key TI0P   sp78    2 0xc0 35.0
key TI1P   sp78    2 0xc0 35.5
key TI2P   sp78    2 0xc0 34.5
key TI3P   sp78    2 0xc0 -127.0
key TN0D   sp78    2 0xc0 44.0
key TN0H   sp78    2 0xc0 42.0
key TPCD   sp78    2 0xc0 46.0
key Tp0C   sp78    2 0xc0 38.0
key Tp1C   sp78    2 0xc0 36.5
key Tp2C   sp78    2 0xc0 37.0
key Te1P   sp78    2 0xc0 31.0
key Te2P   sp78    2 0xc0 32.0
key Te3P   sp78    2 0xc0 30.5
key Te4P   sp78    2 0xc0 31.5
key TW0P   sp78    2 0xc0 35.0
key TS0V   sp78    2 0xc0 29.5
key TVMD   sp78    2 0xc0 40.0
key TVSx   sp78    2 0xc0 -127.0
key Th0H   sp78    2 0xc0 39.0
key Th1H   sp78    2 0xc0 38.5
key Th2H   sp78    2 0xc0 38.0
key Th3H   sp78    2 0xc0 -127.0
key TCHP   ui8     1 0x80 0

# Power (W), flt
key PSTR   flt     4 0xc4 142.5
key PDTR   flt     4 0xc4 148.0
key PC0R   flt     4 0xc4 36.5
key PCPC   flt     4 0xc4 31.0
key PCPT   flt     4 0xc4 35.0
key PCTR   flt     4 0xc4 37.2
key PC0C   flt     4 0xc4 33.1
key PG0R   flt     4 0xc4 13.0
key PG1R   flt     4 0xc4 12.0
key PGTR   flt     4 0xc4 24.5
key PM0R   flt     4 0xc4 9.4
key PMTR   flt     4 0xc4 9.9
key PO0R   flt     4 0xc4 6.5
key PH0C   flt     4 0xc4 0.4
key PZ0E   flt     4 0xc4 0.0
key PZ1E   flt     4 0xc4 0.0
key PCPL   ui8     1 0xc0 205

# Voltages (V) and currents (A), flt
key VD0R   flt     4 0xc4 12.1
key VC0C   flt     4 0xc4 0.92
key VG0C   flt     4 0xc4 0.85
key VM0R   flt     4 0xc4 1.2
key VN0C   flt     4 0xc4 1.05
key VP0R   flt     4 0xc4 12.05
key ID0R   flt     4 0xc4 12.2
key IC0R   flt     4 0xc4 3.0
key IC0C   flt     4 0xc4 38.0
key IG0R   flt     4 0xc4 2.1
key IM0R   flt     4 0xc4 7.8
key IN0C   flt     4 0xc4 2.2
key IO0R   flt     4 0xc4 0.6
