# Built-in virtual Mac: MacBookPro18,2 (16-inch, 2021, M1 Max), Apple silicon.
# Two fans with mode keys; the test key Ftst must be 1 before mode writes are honoured.
# Every temperature, fan, power, voltage and current key is an IEEE float (flt). Fans stop
# at idle (F0Ac 0). Attribute bytes follow the T2 pattern (not documented for this class).

model MacBookPro18,2

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
