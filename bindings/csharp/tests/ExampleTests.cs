// The example host from outside: a program beside this one.
using System;
using System.Diagnostics;
using System.IO;

public class ExampleTests : HomeTest
{
    private readonly string folder;

    public ExampleTests()
    {
        folder = NewHome("confidential");
        File.WriteAllText(Path.Combine(folder, "contract.txt"), Texts.Prose(1000, 1));
        File.WriteAllText(Path.Combine(folder, "minutes.txt"), Texts.Prose(1000, 2));
        File.WriteAllText(Path.Combine(folder, "note.txt"), "short");
        File.WriteAllText(Path.Combine(Root, "leak"), "Dear Tom,\n" + Texts.Prose(1000, 2).Substring(2000, 2500));
        File.WriteAllText(Path.Combine(Root, "chat"), Texts.Prose(500, 77));
    }

    private string Run(int status, params string[] arguments)
    {
        string program = Path.Combine(AppDomain.CurrentDomain.BaseDirectory, "Gateway.exe");
        var start = new ProcessStartInfo(
            "mono", "\"" + program + "\" \"" + string.Join("\" \"", arguments) + "\"")
        {
            UseShellExecute = false, RedirectStandardOutput = true, RedirectStandardError = true
        };
        using (Process process = Process.Start(start))
        {
            string output = process.StandardOutput.ReadToEnd() + process.StandardError.ReadToEnd();
            process.WaitForExit();
            Expect.Equal(status, process.ExitCode);
            return output;
        }
    }

    public void AQuoteIsBlockedAndAnotherTextPassesAtEveryStart()
    {
        for (int start = 0; start < 2; ++start)
        {
            Expect.Equal("note.txt: too short to be recognised\n"
                         + "leak: blocked, quotes minutes.txt (Strong)\nchat: passed\n",
                         Run(1, Path.Combine(Root, "index"), folder, Path.Combine(Root, "leak"),
                             Path.Combine(Root, "chat")));
        }
        Run(0, Path.Combine(Root, "index"), folder, Path.Combine(Root, "chat"));
    }

    public void FailuresAreToldAndNothingPasses()
    {
        string output = Run(2, Home, folder, Path.Combine(Root, "missing"));
        Expect.True(output.Contains("Gateway: ") && !output.Contains("passed"), output);
        Run(2, Home);
    }
}
